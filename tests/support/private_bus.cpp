#include "private_bus.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

constexpr const char* kAllowEverything =
    "<policy context='default'><allow user='*'/><allow own='*'/><allow send_destination='*'/>"
    "<allow receive_sender='*'/></policy>";

// Between fork and exec: system calls only.
[[noreturn]] void Become(const char* const* arguments, const char* log) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
    execvp(arguments[0], const_cast<char* const*>(arguments));
    _exit(127);
}

/// True once the bus has told its address, false when it ended without.
bool WaitForLine(int fd) {
    char character = '\0';
    for (;;) {
        const ssize_t count = read(fd, &character, 1);
        if (count == 1 && character == '\n') {
            return true;
        }
        if (count == 0 || (count < 0 && errno != EINTR)) {
            return false;
        }
    }
}

}  // namespace

PrivateBus::PrivateBus(const char* variable, const std::string& policy)
    : m_address("unix:path=" + m_folder.Path() + "/bus") {
    setenv(variable, m_address.c_str(), 1);
    std::ofstream(m_folder.Path() + "/bus.conf")
        << "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN'\n"
           " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>\n"
           "<busconfig><listen>"
        << m_address << "</listen><auth>EXTERNAL</auth>" << (policy.empty() ? kAllowEverything : policy)
        << "</busconfig>\n";
}

PrivateBus::~PrivateBus() {
    Stop();
}

void PrivateBus::Start() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe for a bus");
    }
    const std::string configuration = "--config-file=" + m_folder.Path() + "/bus.conf";
    const int told = dup(ends[1]);  // the only descriptor that the bus inherits
    const std::string print = "--print-address=" + std::to_string(told);
    const char* const arguments[] = {"dbus-daemon", "--nofork",   "--nopidfile", configuration.c_str(),
                                     print.c_str(), "--nosyslog", nullptr};
    const std::string log = m_folder.Path() + "/bus.log";
    m_pid = fork();
    if (m_pid == 0) {
        Become(arguments, log.c_str());
    }
    close(told);
    close(ends[1]);
    const bool started = m_pid > 0 && WaitForLine(ends[0]);
    close(ends[0]);
    if (!started) {
        Stop();
        std::stringstream said;
        said << std::ifstream(log).rdbuf();
        throw std::runtime_error("dbus-daemon did not start: " + said.str());
    }
}

void PrivateBus::Stop() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    m_pid = -1;
}

void PrivateBus::Pause() {
    kill(m_pid, SIGSTOP);
}

void PrivateBus::Resume() {
    kill(m_pid, SIGCONT);
}
