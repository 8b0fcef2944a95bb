#include <gmock/gmock.h>

#include <cstdlib>

#include "child_process.h"
#include "temporary_folder.h"

int main(int argc, char** argv) {
    if (const std::optional<int> status = child::RunProgram(argc, argv)) {
        return *status;
    }
    testing::InitGoogleMock(&argc, argv);
    // What this process itself logs or keeps stays away from the machine's own files.
    const TemporaryFolder root;
    setenv("ZOL_ROOT", root.Path().c_str(), 1);
    return RUN_ALL_TESTS();
}
