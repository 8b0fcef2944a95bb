#pragma once
/// Owners of the C library's handles.
#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "base/unique_fd.h"

namespace base {

/// Deleter of a std::unique_ptr whose handle is released by the function `Free`.
template <auto Free>
struct FreeWith {
    template <typename T>
    void operator()(T* handle) const noexcept {
        Free(handle);
    }
};

/// Drops a late write error. Who must know of it calls std::fclose(file.release()).
using FilePtr = std::unique_ptr<std::FILE, FreeWith<std::fclose>>;
using FolderPtr = std::unique_ptr<DIR, FreeWith<closedir>>;
using MallocString = std::unique_ptr<char, FreeWith<std::free>>;

/// A stream on the descriptor, which goes with it. Null for no descriptor, and with errno without memory.
[[nodiscard]] inline FilePtr OpenStream(UniqueFd fd, const char* mode) {
    FilePtr stream(fd ? fdopen(fd.Get(), mode) : nullptr);
    if (stream != nullptr) {
        static_cast<void>(fd.Release());  // the stream's now
    }
    return stream;
}

}  // namespace base
