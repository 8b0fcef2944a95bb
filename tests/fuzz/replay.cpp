/// Stands in for libFuzzer's own main: hands a target each file that is named, and each file of a folder.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz_target.h"

namespace fs = std::filesystem;

namespace {

bool Replay(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
    // The last one shown is the one that broke the target.
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

/// @return how many inputs, -1 when one cannot be read
int ReplayAll(const fs::path& path) {
    if (!fs::is_directory(path)) {
        return Replay(path) ? 1 : -1;
    }
    int count = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
        if (!Replay(entry.path())) {
            return -1;
        }
        ++count;
    }
    return count;
}

}  // namespace

int main(int argc, char** argv) {
    int count = 0;
    for (int index = 1; index < argc; ++index) {
        const int more = ReplayAll(argv[index]);
        // A test without an input would prove nothing.
        if (more <= 0) {
            std::fprintf(stderr, "no inputs in %s\n", argv[index]);
            return EXIT_FAILURE;
        }
        count += more;
    }
    std::printf("%d inputs\n", count);
    return EXIT_SUCCESS;
}
