#include <gmock/gmock.h>

#include <unistd.h>

#include <cstdlib>

#include "child_process.h"
#include "temporary_folder.h"

namespace {

/// The process whose tests are under way; 0 once they have ended.
pid_t g_testing = 0;

/// An assertion that ends the process with status 0 must not pass for tests that have passed. What a death
/// test forks may end so.
void FailUnfinished() {
    if (g_testing == getpid()) {
        _exit(EXIT_FAILURE);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> status = child::RunProgram(argc, argv)) {
        return *status;
    }
    testing::InitGoogleMock(&argc, argv);
    // What this process itself logs or keeps stays away from the machine's own files.
    const TemporaryFolder root;
    setenv("ZOL_ROOT", root.Path().c_str(), 1);
    g_testing = getpid();
    if (std::atexit(FailUnfinished) != 0) {
        return EXIT_FAILURE;
    }
    const int status = RUN_ALL_TESTS();
    g_testing = 0;
    return status;
}
