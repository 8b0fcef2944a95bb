#include "child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <utility>

extern char** environ;

namespace child {
namespace {

constexpr const char* kChildOption = "--child";

std::map<std::string, Body>& Programs() {
    static std::map<std::string, Body> programs;
    return programs;
}

/// This program; through the emulator when it is built for another machine.
Arguments Self() {
    Arguments command;
    for (const char* word : {ZOL_TEST_EMULATOR}) {
        if (*word != '\0') {
            command.emplace_back(word);
        }
    }
    std::array<char, 4096> path;
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    command.emplace_back(path.data(), static_cast<std::size_t>(length));
    return command;
}

std::vector<char*> Pointers(const Arguments& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const std::string& word : words) {
        pointers.push_back(const_cast<char*>(word.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

Arguments Environment(const std::string& root) {
    Arguments environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, "ZOL_ROOT=", 9) != 0) {
            environment.emplace_back(*entry);
        }
    }
    if (!root.empty()) {
        environment.push_back("ZOL_ROOT=" + root);
    }
    return environment;
}

}  // namespace

Program::Program(const char* name, Body body) {
    Programs()[name] = body;
}

Process::Process(const std::string& name, const Arguments& arguments, const std::string& root) {
    Arguments command = Self();
    command.insert(command.end(), {kChildOption, name});
    command.insert(command.end(), arguments.begin(), arguments.end());
    Start(command, root);
}

Process Process::Of(const std::string& name, const Arguments& arguments, const std::string& root) {
    Arguments command = Self();
    command.back() = std::filesystem::path(command.back()).replace_filename(name).string();
    command.insert(command.end(), arguments.begin(), arguments.end());
    return Run(command, root);
}

Process Process::Run(const Arguments& command, const std::string& root) {
    Process process;
    process.Start(command, root);
    return process;
}

Process::Process(Process&& other) noexcept
    : m_pid(std::exchange(other.m_pid, -1)),
      m_input(std::move(other.m_input)),
      m_output(std::move(other.m_output)) {}

Process::~Process() {
    if (m_pid > 0) {
        Kill();
        Wait();
    }
}

void Process::Start(const Arguments& command, const std::string& root) {
    std::array<int, 2> input{};
    std::array<int, 2> output{};
    ASSERT_EQ(pipe2(input.data(), O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(output.data(), O_CLOEXEC), 0);
    const base::UniqueFd childInput(input[0]);
    const base::UniqueFd childOutput(output[1]);
    m_input.Reset(input[1]);
    m_output.Reset(output[0]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childInput.Get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, childOutput.Get(), STDOUT_FILENO);
    const Arguments environment = Environment(root);
    const int error = posix_spawnp(&m_pid, command[0].c_str(), &actions, nullptr, Pointers(command).data(),
                                   Pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    ASSERT_EQ(error, 0) << command[0];
}

std::string Process::ReadLine() {
    std::string line;
    char byte = 0;
    while (read(m_output.Get(), &byte, 1) == 1 && byte != '\n') {
        line += byte;
    }
    return line;
}

std::string Process::ReadAll() {
    std::string text;
    std::array<char, 4096> buffer;
    for (ssize_t length = 0; (length = read(m_output.Get(), buffer.data(), buffer.size())) > 0;) {
        text.append(buffer.data(), static_cast<std::size_t>(length));
    }
    return text;
}

void Process::Signal(int number) {
    kill(m_pid, number);
}

int Process::Wait() {
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

bool IsEmulated() {
    const std::array words = {ZOL_TEST_EMULATOR};
    return *words.front() != '\0';
}

void WaitForRelease() {
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

void Tell(const std::string& line) {
    const std::string text = line + "\n";
    if (write(STDOUT_FILENO, text.data(), text.size()) < 0) {
        std::abort();
    }
}

std::optional<int> RunProgram(int argc, char** argv) {
    if (argc < 3 || std::strcmp(argv[1], kChildOption) != 0) {
        return std::nullopt;
    }
    return Programs().at(argv[2])(Arguments(argv + 3, argv + argc));
}

}  // namespace child
