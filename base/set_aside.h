#pragma once
#include <string>
#include <system_error>

namespace base {

struct SetAsideResult {
    /// Where the file is kept; empty when it had to be removed instead, or when there is an error.
    std::string name;
    /// The damaged file still stands in its place.
    std::error_code error;
};

/// Clears the place of a damaged database: moves it with its companions ("-wal", "-shm", "-journal") to
/// "<path>.damaged", in place of what was kept there before. Should that not be possible it is removed, since
/// its owner has to go on. After a power cut in between the damaged database is still there to find, and at
/// no moment does a companion of it lie beside a new one. The database itself may be missing: an
/// empty file is kept for it. Nobody may have it open.
[[nodiscard]] SetAsideResult SetAside(const std::string& path);

}  // namespace base
