#pragma once
/// The page that a test shares with the tracer and the failing allocator: what to break, and what came of it.
#include <fcntl.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "base/unique_fd.h"

namespace faults {

/// What is counted, and broken, together. `fault_tracer --list` prints the names in this order.
enum class Kind : std::uint32_t {
    Allocation,
    Open,    ///< that makes no file
    Create,  ///< open with O_CREAT
    Write,   ///< to a file other than a log
    Log,     ///< write to a log file
    Sync,
    Rename,
    MakeFolder,
    Truncate,
    Close,  ///< of a file or folder
    Map,
    Start,  ///< of a thread or process
    Socket,
    Connect,
    Accept,
    Send,
    Any,  ///< every system call but waits; only with --every-call
    Count
};

/// How a call breaks when it is not an errno.
constexpr std::int32_t kShortWrite = -1;  ///< half of it is written
constexpr std::int32_t kKill = -2;        ///< SIGKILL to the process before the call

/// The driver writes the first group before the program starts and reads the others.
struct Control {
    std::atomic<std::uint32_t> isArmed;  ///< calls count while it is not 0; changes at any time
    Kind kind;
    std::uint32_t nth;   ///< the call to break, from 1; 0 counts only
    std::int32_t how;    ///< an errno, kShortWrite or kKill
    char programs[128];  ///< names whose calls count, each between colons

    std::atomic<std::uint32_t> isBroken;
    std::atomic<std::uint32_t> counts[static_cast<std::size_t>(Kind::Count)];
    char place[1024];  ///< the call that was broken: program, call, file
};

/// Null when there is no such file.
inline Control* MapControl(const char* path) {
    const base::UniqueFd file(open(path, O_RDWR | O_CLOEXEC));
    void* page = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
    return page == MAP_FAILED ? nullptr : static_cast<Control*>(page);
}

/// Counts one call. True for the one to be broken.
inline bool Counts(Control* control, Kind kind) {
    const std::uint32_t count = ++control->counts[static_cast<std::size_t>(kind)];
    return control->kind == kind && count == control->nth && control->isBroken.exchange(1) == 0;
}

}  // namespace faults
