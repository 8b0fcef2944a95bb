#include "display_capture/run_command.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

#include "platform_clock.h"

namespace platform {

namespace {

constexpr unsigned kLookMs = 5;

/// posix_spawn's file actions, released with their owner.
class FileActions {
public:
    FileActions() { posix_spawn_file_actions_init(&m_actions); }
    ~FileActions() { posix_spawn_file_actions_destroy(&m_actions); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;
    posix_spawn_file_actions_t* Get() { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions{};
};

/// The wait status, or -1 when there is none or the time is over; then the child was killed.
int WaitFor(pid_t child, unsigned timeoutMs) {
    int status = 0;
    for (unsigned waited = 0; waited < timeoutMs; waited += kLookMs) {
        const pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended == child) {
            return status;
        }
        if (ended < 0 && errno != EINTR) {
            return -1;
        }
        platform_sleep_us(std::uint64_t{kLookMs} * 1000U);
    }
    kill(child, SIGKILL);
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        // A child that is not waited for stays a zombie for as long as the daemon runs.
    }
    return -1;
}

}  // namespace

bool RunCommand(const std::vector<std::string>& command, const std::string& folder, unsigned timeoutMs,
                std::string& failure) {
    FileActions actions;
    posix_spawn_file_actions_addopen(actions.Get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(actions.Get(), STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addchdir_np(actions.Get(), folder.c_str());
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const std::string& word : command) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    pid_t child = -1;
    const int error = posix_spawnp(&child, words[0], actions.Get(), nullptr, words.data(), environ);
    if (error != 0) {
        failure = command[0] + ": " + std::strerror(error);
        return false;
    }
    const int status = WaitFor(child, timeoutMs);
    if (status == 0) {
        return true;
    }
    failure = command[0] + (status == -1        ? ": did not end"
                            : WIFEXITED(status) ? ": status " + std::to_string(WEXITSTATUS(status))
                                                : ": signal " + std::to_string(WTERMSIG(status)));
    return false;
}

}  // namespace platform
