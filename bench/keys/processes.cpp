#include "keys/processes.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <map>

namespace bench {
namespace {

std::map<std::string, Role>& Roles() {
    static std::map<std::string, Role> roles;
    return roles;
}

/// Opens the pipe that a watcher tells on.
const int (&OpenPipe(int (&ends)[2]))[2] {
    if (pipe2(ends, O_CLOEXEC) != 0) {
        std::abort();
    }
    return ends;
}

Words RoleCommand(const std::string& role, const Words& words) {
    Words command{"/proc/self/exe", "--as", role};
    command.insert(command.end(), words.begin(), words.end());
    return command;
}

}  // namespace

RoleName::RoleName(const char* name, Role role) {
    Roles()[name] = role;
}

std::optional<int> PlayRole(int argc, char** argv) {
    if (argc < 3 || std::string(argv[1]) != "--as") {
        return std::nullopt;
    }
    return Roles().at(argv[2])(Words(argv + 3, argv + argc));
}

std::string Folder() {
    const char* const root = std::getenv("ZOL_ROOT");
    return root != nullptr ? root : "/tmp";
}

Child::Child(const Words& command, int tell) : m_pid(fork()) {
    if (m_pid != 0) {
        return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (tell >= 0) {
        dup2(tell, kTellOn);
    }
    std::vector<char*> pointers;
    pointers.reserve(command.size() + 1);
    for (const std::string& word : command) {
        pointers.push_back(const_cast<char*>(word.c_str()));
    }
    pointers.push_back(nullptr);
    execvp(pointers[0], pointers.data());
    _exit(1);
}

Child::~Child() {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

void Tell(std::int32_t number) {
    if (write(kTellOn, &number, sizeof(number)) != sizeof(number)) {
        _exit(1);
    }
}

Watcher::Watcher(const std::string& role, const Words& words)
    : m_child(RoleCommand(role, words), OpenPipe(m_ends)[1]) {
    close(m_ends[1]);
    Await(kReady);
}

Watcher::~Watcher() {
    close(m_ends[0]);
}

void Watcher::Await(std::int32_t wanted) const {
    std::int32_t seen = wanted - 1;
    while (seen != wanted) {
        if (read(m_ends[0], &seen, sizeof(seen)) != sizeof(seen)) {
            std::abort();
        }
    }
}

}  // namespace bench
