#include "base/process.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <fstream>
#include <string>

#include "base/unique_fd.h"
#include "temporary_folder.h"

namespace {

std::atomic<bool> g_isOldKernel{false};  // one that has no descriptors of processes; GLib's threads ask too

}  // namespace

extern "C" long syscall(long number, ...) {
    static const auto real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    if (g_isOldKernel && number == SYS_pidfd_open) {
        errno = ENOSYS;
        return -1;
    }
    va_list list;
    va_start(list, number);
    long words[6];
    for (long& word : words) {
        word = va_arg(list, long);
    }
    va_end(list);
    return real(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}

namespace {

base::Command Shell(const std::string& text) {
    base::Command command;
    command.words = {"sh", "-c", text};
    return command;
}

std::string Children() {
    std::string children;
    std::getline(std::ifstream("/proc/thread-self/children"), children);
    return children;
}

TEST(RunProcess, TellsHowTheProgramEnded) {
    const base::ProcessEnd exited = base::RunProcess(Shell("exit 3"));
    EXPECT_FALSE(exited.error);
    EXPECT_TRUE(WIFEXITED(exited.status));
    EXPECT_EQ(WEXITSTATUS(exited.status), 3);

    base::Command killed = Shell("kill -9 $$");
    killed.timeoutMs = 60000;
    const base::ProcessEnd end = base::RunProcess(killed);
    EXPECT_FALSE(end.error);
    EXPECT_TRUE(WIFSIGNALED(end.status));
    EXPECT_EQ(WTERMSIG(end.status), SIGKILL);
}

TEST(RunProcess, TellsThatThereIsNoSuchProgram) {
    base::Command command;
    command.words = {"no-program-of-this-name"};
    const base::ProcessEnd end = base::RunProcess(command);
    // How a failed start is told depends on the machine: at once, or by the child's status.
    EXPECT_TRUE(end.error == std::errc::no_such_file_or_directory || WEXITSTATUS(end.status) == 127);
}

TEST(RunProcess, RunsInItsFolderAndMayBeQuiet) {
    const TemporaryFolder folder;
    base::Command command = Shell("pwd > here; cat; out=$(readlink /proc/$$/fd/1); echo \"$out\" > out");
    command.folder = folder.Path();
    command.isQuiet = true;
    EXPECT_EQ(base::RunProcess(command).status, 0);
    std::string here;
    std::string out;
    std::getline(std::ifstream(folder.Path() + "/here"), here);
    std::getline(std::ifstream(folder.Path() + "/out"), out);
    EXPECT_EQ(here, folder.Path());
    EXPECT_EQ(out, "/dev/null");
}

TEST(RunProcess, HandsDownTheInheritedDescriptorOnly) {
    const base::UniqueFd one(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const base::UniqueFd other(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const auto has = [](const base::UniqueFd& fd) {
        return "test -e /proc/$$/fd/" + std::to_string(fd.Get());
    };
    base::Command command = Shell(has(one) + " && ! " + has(other));
    command.inherited = one.Get();
    EXPECT_EQ(base::RunProcess(command).status, 0);
    EXPECT_EQ(fcntl(one.Get(), F_GETFD), FD_CLOEXEC);
}

TEST(RunProcess, KillsWhatTakesTooLongAndLeavesNoZombie) {
    base::Command command;
    command.words = {"sleep", "1000"};
    command.timeoutMs = 20;
    const std::string before = Children();
    EXPECT_EQ(base::RunProcess(command).error, std::errc::timed_out);
    EXPECT_EQ(Children(), before);
}

TEST(RunProcess, HonoursTheTimeOnAnOldKernel) {
    g_isOldKernel = true;
    base::Command quick = Shell("exit 3");
    quick.timeoutMs = 60000;
    const base::ProcessEnd exited = base::RunProcess(quick);
    base::Command slow;
    slow.words = {"sleep", "1000"};
    slow.timeoutMs = 20;
    const base::ProcessEnd killed = base::RunProcess(slow);
    g_isOldKernel = false;
    EXPECT_FALSE(exited.error);
    EXPECT_EQ(WEXITSTATUS(exited.status), 3);
    EXPECT_EQ(killed.error, std::errc::timed_out);
}

}  // namespace
