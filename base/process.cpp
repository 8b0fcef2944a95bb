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
    // The header of glibc 2.36 declares the function for C only.
    const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    if (!process) {
        return LastError();
    }
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd ended{process.Get(), POLLIN, 0};
        const int ready = poll(&ended, 1, static_cast<int>(std::max<decltype(left)>(left, 0)));
        if (ready != 0 && !(ready < 0 && errno == EINTR)) {
            return ErrorUnless(ready > 0);
        }
        if (ready == 0) {
            return std::make_error_code(std::errc::timed_out);
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
