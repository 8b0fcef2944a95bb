#include "packing.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "base/folders.h"
#include "base/handles.h"
#include "base/system_error.h"

namespace upload {
namespace {

constexpr mode_t kFolderMode = 0700;

using GzipPtr = std::unique_ptr<gzFile_s, base::FreeWith<gzclose>>;

std::error_code Failure() {
    return errno != 0 ? base::LastError() : std::make_error_code(std::errc::io_error);
}

}  // namespace

Scratch::Scratch(const std::string& parent) : m_path(parent + "/upload") {
    static_cast<void>(base::RemoveTree(AT_FDCWD, m_path.c_str()));
    if (mkdir(m_path.c_str(), kFolderMode) != 0) {
        m_path.clear();
    }
}

Scratch::~Scratch() {
    if (!m_path.empty()) {
        static_cast<void>(base::RemoveTree(AT_FDCWD, m_path.c_str()));
    }
}

namespace {

std::error_code PackInto(int from, const std::string& to) {
    errno = 0;
    GzipPtr packed(gzopen(to.c_str(), "wbe"));
    if (packed == nullptr) {
        return Failure();
    }
    std::array<char, 16384> block;
    ssize_t length = 0;
    while ((length = read(from, block.data(), block.size())) > 0) {
        if (gzwrite(packed.get(), block.data(), static_cast<unsigned>(length)) != length) {
            return Failure();
        }
    }
    if (length < 0) {
        return base::LastError();
    }
    return gzclose(packed.release()) == Z_OK ? std::error_code() : Failure();
}

}  // namespace

std::error_code Pack(int from, const std::string& to) {
    const std::error_code error = PackInto(from, to);
    if (error) {
        unlink(to.c_str());  // what there is of it takes room that others need
    }
    return error;
}

}  // namespace upload
