#pragma once
/// The system calls that the tracer tells apart.
#include <sys/types.h>
#include <sys/user.h>

#include <optional>
#include <string>

#include "control.h"

namespace faults {

/// Names of the kinds, in their order.
extern const char* const kKindNames[static_cast<std::size_t>(Kind::Count)];

/// A thread's call: what it belongs to and what it is about.
struct Call {
    std::optional<Kind> kind;  ///< none when it is not to be counted, such as a write to a pipe
    std::string text;          ///< name and file
};

/// Understands the call that a stopped thread is about to make.
Call Understand(pid_t thread, const user_regs_struct& registers);

/// Makes this process, and all that it starts, stop before the calls of the kinds, or before every call but
/// waits. Its tracer must be there already. False, and errno, when the system refuses.
bool StopAtCalls(bool every);

}  // namespace faults
