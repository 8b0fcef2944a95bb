#include "base/process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

#include "base/system_error.h"
#include "base/unique_fd.h"

namespace base {
namespace {

/// posix_spawn's file actions, released with their owner.
class FileActions {
public:
    explicit FileActions(const Command& command) {
        posix_spawn_file_actions_init(&m_actions);
        if (command.isQuiet) {
            posix_spawn_file_actions_addopen(&m_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
            posix_spawn_file_actions_addopen(&m_actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        }
        if (command.inherited >= 0) {
            // Onto itself: the child's copy loses close-on-exec.
            posix_spawn_file_actions_adddup2(&m_actions, command.inherited, command.inherited);
        }
        if (!command.folder.empty()) {
            posix_spawn_file_actions_addchdir_np(&m_actions, command.folder.c_str());
        }
    }
    ~FileActions() { posix_spawn_file_actions_destroy(&m_actions); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;
    const posix_spawn_file_actions_t* Get() const { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions{};
};

/// Waits until the child has ended, without collecting its status.
std::error_code AwaitEnd(pid_t child, unsigned timeoutMs) {
    using Clock = std::chrono::steady_clock;
    using Milliseconds = std::chrono::milliseconds;
    constexpr Milliseconds kStep(10);
    // None before Linux 5.3. The header of glibc 2.36 declares the function for C only.
    const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    const auto end = Clock::now() + Milliseconds(timeoutMs);
    for (;;) {
        siginfo_t ended{};
        if (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) != 0) {
            return LastError();
        }
        if (ended.si_pid == child) {
            return {};
        }
        const auto left = std::chrono::ceil<Milliseconds>(end - Clock::now());
        if (left.count() <= 0) {
            return std::make_error_code(std::errc::timed_out);
        }
        // Without a descriptor (-1) poll just sleeps.
        pollfd change{process.Get(), POLLIN, 0};
        const Milliseconds wait = process ? left : std::min(left, kStep);
        if (poll(&change, 1, static_cast<int>(wait.count())) < 0 && errno != EINTR) {
            return LastError();
        }
    }
}

}  // namespace

ProcessEnd RunProcess(const Command& command) {
    std::vector<char*> words;
    words.reserve(command.words.size() + 1);
    for (const std::string& word : command.words) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    const FileActions actions(command);
    ProcessEnd end;
    pid_t child = -1;
    const int failure = posix_spawnp(&child, words[0], actions.Get(), nullptr, words.data(), environ);
    if (failure != 0) {
        end.error = {failure, std::generic_category()};
        return end;
    }
    if (command.timeoutMs) {
        end.error = AwaitEnd(child, *command.timeoutMs);
        if (end.error) {
            kill(child, SIGKILL);
        }
    }
    // In any case: a child that is not waited for stays a zombie for as long as this process runs.
    while (waitpid(child, &end.status, 0) < 0) {
        if (errno != EINTR) {
            end.error = LastError();
            break;
        }
    }
    return end;
}

}  // namespace base
