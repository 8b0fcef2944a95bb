/// Runs a command and breaks one of its system calls, or kills it before one.
///
///   fault_tracer CONTROL [--every-call] COMMAND...
///   fault_tracer --list          the kinds of calls, one a line, in their order
///
/// CONTROL is the file of a faults::Control. Threads and children are followed; a program's calls count from
/// its entry point on, so that the loader's do not. The tracer ends as the command does, and what else it
/// traces dies with it.
#include <elf.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "calls.h"

namespace faults {
namespace {

constexpr int kExitUsage = 125;
constexpr int kExitNotRun = 127;
constexpr long kOptions = PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                          PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_TRACESYSGOOD |
                          PTRACE_O_EXITKILL;
constexpr int kSyscallStop = SIGTRAP | 0x80;
constexpr long kBreakpoint = 0xcc;

struct Process {
    std::string program;
    bool hasEntered = false;
    bool isCounted = false;
    unsigned long entry = 0;  ///< with a breakpoint while it is not 0
    long word = 0;            ///< what stood there
};

/// A line of /proc/<thread>/status, as a number.
pid_t StatusOf(pid_t thread, const std::string& name) {
    std::ifstream status("/proc/" + std::to_string(thread) + "/status");
    for (std::string word; status >> word;) {
        if (word == name) {
            pid_t number = 0;
            status >> number;
            return number;
        }
    }
    return 0;
}

std::string ProgramOf(pid_t process) {
    std::array<char, 4096> path;
    const ssize_t length =
        readlink(("/proc/" + std::to_string(process) + "/exe").c_str(), path.data(), path.size());
    const std::string whole(path.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    return whole.substr(whole.rfind('/') + 1);
}

unsigned long EntryOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/auxv", std::ios::binary);
    Elf64_auxv_t entry{};
    while (file.read(reinterpret_cast<char*>(&entry), sizeof(entry))) {
        if (entry.a_type == AT_ENTRY) {
            return entry.a_un.a_val;
        }
    }
    return 0;
}

class Tracer {
public:
    explicit Tracer(Control* control, bool every) : m_control(control), m_every(every) {}

    /// Follows the command until it ends. @return how it did, as wait tells it
    int Follow(pid_t command) {
        m_command = command;
        for (;;) {
            int status = 0;
            const pid_t thread = waitpid(-1, &status, __WALL);
            if (thread < 0 && errno != EINTR) {
                return kExitNotRun << 8;
            }
            if (thread == command && !WIFSTOPPED(status)) {
                return status;
            }
            if (thread > 0 && WIFSTOPPED(status)) {
                OnStop(thread, status);
            }
        }
    }

private:
    void OnStop(pid_t thread, int status) {
        const int event = status >> 16;
        const int signal = WSTOPSIG(status);
        if (event == PTRACE_EVENT_SECCOMP) {
            OnCall(thread);
        } else if (event == PTRACE_EVENT_EXEC) {
            OnExec(thread);
        } else if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK || event == PTRACE_EVENT_CLONE) {
            unsigned long child = 0;
            ptrace(PTRACE_GETEVENTMSG, thread, nullptr, &child);
            static_cast<void>(ProcessOf(static_cast<pid_t>(child)));
            Continue(thread);
        } else if (event == PTRACE_EVENT_STOP) {
            const bool isGroupStop =
                signal == SIGSTOP || signal == SIGTSTP || signal == SIGTTIN || signal == SIGTTOU;
            ptrace(isGroupStop ? PTRACE_LISTEN : PTRACE_CONT, thread, nullptr, nullptr);
        } else if (signal == kSyscallStop) {
            OnReturn(thread);
        } else if (!(signal == SIGTRAP && OnBreakpoint(thread))) {
            Continue(thread, signal);
        }
    }

    static void Continue(pid_t thread, int signal = 0) {
        ptrace(PTRACE_CONT, thread, nullptr, static_cast<long>(signal));
    }

    /// The process that a thread belongs to. A new one is what its parent is.
    Process& ProcessOf(pid_t thread) {
        const pid_t id = StatusOf(thread, "Tgid:");
        const auto known = m_processes.find(id);
        if (known != m_processes.end()) {
            return known->second;
        }
        const auto parent = m_processes.find(StatusOf(thread, "PPid:"));
        Process process;
        if (parent != m_processes.end()) {
            process = parent->second;
        }
        return m_processes[id] = process;
    }

    void OnExec(pid_t thread) {
        Process process;
        process.program = ProgramOf(thread);
        process.isCounted =
            std::strstr(m_control->programs, (":" + process.program + ":").c_str()) != nullptr;
        if (process.isCounted) {
            process.entry = EntryOf(thread);
            process.word = ptrace(PTRACE_PEEKTEXT, thread, process.entry, nullptr);
            ptrace(PTRACE_POKETEXT, thread, process.entry, (process.word & ~0xffL) | kBreakpoint);
        }
        m_processes[StatusOf(thread, "Tgid:")] = process;
        Continue(thread);
    }

    /// True when it was a program's entry point.
    bool OnBreakpoint(pid_t thread) {
        Process& process = ProcessOf(thread);
        user_regs_struct registers{};
        ptrace(PTRACE_GETREGS, thread, nullptr, &registers);
        if (process.entry == 0 || registers.rip != process.entry + 1) {
            return false;
        }
        ptrace(PTRACE_POKETEXT, thread, process.entry, process.word);
        registers.rip = process.entry;
        ptrace(PTRACE_SETREGS, thread, nullptr, &registers);
        process.entry = 0;
        process.hasEntered = true;
        Continue(thread);
        return true;
    }

    void OnCall(pid_t thread) {
        const Process& process = ProcessOf(thread);
        if (m_control->isArmed == 0 || !process.isCounted || !process.hasEntered) {
            Continue(thread);
            return;
        }
        user_regs_struct registers{};
        ptrace(PTRACE_GETREGS, thread, nullptr, &registers);
        const Call call = Understand(thread, registers);
        bool isChosen = call.kind && Counts(m_control, *call.kind);
        isChosen = (m_every && Counts(m_control, Kind::Any)) || isChosen;
        if (isChosen) {
            const std::string place = process.program + ": " + call.text;
            place.copy(m_control->place, sizeof(m_control->place) - 1);
            Break(thread, registers);
        } else {
            Continue(thread);
        }
    }

    void Break(pid_t thread, user_regs_struct registers) {
        if (m_control->how == kKill) {
            kill(StatusOf(thread, "Tgid:"), SIGKILL);
            return;
        }
        if (m_control->kind == Kind::Close) {
            // A close that fails has closed all the same.
            ptrace(PTRACE_SYSCALL, thread, nullptr, nullptr);
            return;
        }
        if (m_control->how == kShortWrite) {
            registers.rdx = registers.rdx > 1 ? registers.rdx / 2 : registers.rdx;
        } else {
            registers.orig_rax = ~0ULL;  // no call
            registers.rax = static_cast<unsigned long long>(-m_control->how);
        }
        ptrace(PTRACE_SETREGS, thread, nullptr, &registers);
        Continue(thread);
    }

    /// The call that fails only once it is done.
    void OnReturn(pid_t thread) {
        user_regs_struct registers{};
        ptrace(PTRACE_GETREGS, thread, nullptr, &registers);
        registers.rax = static_cast<unsigned long long>(-m_control->how);
        ptrace(PTRACE_SETREGS, thread, nullptr, &registers);
        Continue(thread);
    }

    Control* const m_control;
    const bool m_every;
    pid_t m_command = 0;
    std::map<pid_t, Process> m_processes;
};

/// The child: becomes the command once the tracer is there.
[[noreturn]] void BecomeCommand(int go, bool every, char** command) {
    char byte = 0;
    if (read(go, &byte, 1) == 1 && StopAtCalls(every)) {
        execvp(command[0], command);
    }
    std::fprintf(stderr, "fault_tracer: cannot run %s: %s\n", command[0], std::strerror(errno));
    _exit(kExitNotRun);
}

/// Ends this process as the command ended.
int EndLike(int status) {
    if (WIFSIGNALED(status)) {
        const rlimit none{};
        setrlimit(RLIMIT_CORE, &none);
        std::signal(WTERMSIG(status), SIG_DFL);
        raise(WTERMSIG(status));
    }
    return WEXITSTATUS(status);
}

int Run(Control* control, bool every, char** command) {
    std::array<int, 2> go{};
    if (pipe2(go.data(), O_CLOEXEC) != 0) {
        return kExitNotRun;
    }
    const pid_t child = fork();
    if (child == 0) {
        BecomeCommand(go[0], every, command);
    }
    if (child < 0 || ptrace(PTRACE_SEIZE, child, nullptr, kOptions) != 0 || write(go[1], "", 1) != 1) {
        std::fprintf(stderr, "fault_tracer: cannot trace: %s\n", std::strerror(errno));
        return kExitNotRun;
    }
    // Whoever ends the command by its process group means the command.
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        std::signal(signal, SIG_IGN);
    }
    return EndLike(Tracer(control, every).Follow(child));
}

}  // namespace
}  // namespace faults

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--list") == 0) {
        for (const char* name : faults::kKindNames) {
            std::puts(name);
        }
        return 0;
    }
    const bool every = argc > 2 && std::strcmp(argv[2], "--every-call") == 0;
    const int command = every ? 3 : 2;
    faults::Control* control = argc > command ? faults::MapControl(argv[1]) : nullptr;
    if (control == nullptr) {
        std::fprintf(stderr, "usage: fault_tracer CONTROL [--every-call] COMMAND... | --list\n");
        return faults::kExitUsage;
    }
    return faults::Run(control, every, argv + command);
}
