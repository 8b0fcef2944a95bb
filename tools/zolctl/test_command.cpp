#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

#include "commands.h"

namespace zolctl {
namespace {

constexpr const char* kProgram = "zol_policy_test";

/// Beside the program that runs here (a build), else where it is installed together with that.
std::string Program() {
    std::error_code ignored;
    const std::filesystem::path folder =
        std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
    const std::string beside = (folder / kProgram).string();
    return access(beside.c_str(), X_OK) == 0 ? beside
                                             : (folder / ZOL_PROGRAM_DIR_FROM_HERE / kProgram).string();
}

/// Becomes the program that has the daemon's parts, with the same arguments.
int Test(std::vector<std::string> words) {
    const std::string program = Program();
    words.insert(words.begin(), "zolctl policy test");
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    std::signal(SIGPIPE, SIG_DFL);
    execv(program.c_str(), arguments.data());
    if (errno == ENOENT) {
        std::cerr << "zolctl: policy test: this installation has no " << kProgram << " (" << program << ")\n";
    } else {
        std::cerr << "zolctl: cannot start " << program << ": " << std::strerror(errno) << '\n';
    }
    return EXIT_UNREACHABLE;
}

}  // namespace

void AddTestCommand(CLI::App& policy, Action& action) {
    CLI::App* test = policy.add_subcommand(
        "test",
        "Play scenarios with policies on simulated time; 0 passed, 1 failed, 2 a file cannot be read");
    // All that follows is the other program's, its --help, too.
    test->set_help_flag();
    test->prefix_command();
    test->callback([test, &action] { action = [words = test->remaining()] { return Test(words); }; });
}

}  // namespace zolctl
