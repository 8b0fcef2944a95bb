#pragma once
/// Processes that tests start: this very program again, running one of its named bodies instead of tests.
#include <sys/types.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace child {

using Arguments = std::vector<std::string>;
using Body = int (*)(const Arguments& arguments);

/// Makes `body` known under a name; a static object of this type does it before main.
class Program {
public:
    Program(const char* name, Body body);
};

/// A running body. Killed, if it still runs, when this goes out of scope.
class Process {
public:
    /// @param root the child's ZOL_ROOT; none when empty
    Process(const std::string& name, const Arguments& arguments, const std::string& root = "");
    /// Runs another program of this build, found by its name.
    static Process Of(const std::string& name, const Arguments& arguments, const std::string& root);
    /// Runs any program; the first word is its path.
    static Process Run(const Arguments& command, const std::string& root);
    Process(Process&& other) noexcept;
    Process& operator=(Process&&) = delete;
    ~Process();

    /// The next line that it prints, without its end; empty at the end of its output.
    std::string ReadLine();
    /// All that it still prints.
    std::string ReadAll();
    /// Lets a body that waits in WaitForRelease() go on.
    void Release() { m_input.Reset(); }
    void Kill() { Signal(SIGKILL); }
    void Signal(int number);
    /// Nobody reads its output any more.
    void CloseOutput() { m_output.Reset(); }
    /// Its exit status, or minus the signal that ended it.
    int Wait();

private:
    Process() = default;
    void Start(const Arguments& command, const std::string& root);

    pid_t m_pid = -1;
    base::UniqueFd m_input;
    base::UniqueFd m_output;
};

/// Whether this program runs through an emulator.
bool IsEmulated();

/// For main: runs the named body when this process was started for one. @return its exit status
std::optional<int> RunProgram(int argc, char** argv);

/// In a body: returns when the test releases it or is gone.
void WaitForRelease();
/// In a body: a line for the test to read, at once.
void Tell(const std::string& line);

}  // namespace child
