#pragma once
#include <sys/types.h>

#include <optional>

namespace zol_daemon {

/// Makes this process the only daemon on its device root, to its end: the lock dies with it, however it ends.
/// A lock file that cannot be made or locked is logged and keeps nobody from running. Once in a process.
/// @return the process that is the only daemon already; none when this one is
[[nodiscard]] std::optional<pid_t> FindOtherInstance();

}  // namespace zol_daemon
