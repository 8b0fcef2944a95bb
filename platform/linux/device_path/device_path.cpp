#include "device_path.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

#include "device_paths.h"

namespace {

/// $ZOL_ROOT without links and without a trailing slash, so that a canonical device path stays canonical when
/// it is mapped.
std::string ReadRoot() {
    const char* configured = std::getenv("ZOL_ROOT");
    if (configured == nullptr || *configured == '\0') {
        return {};
    }
    char resolved[PATH_MAX];
    std::string path = realpath(configured, resolved) != nullptr ? resolved : configured;
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

/// Read once: the environment does not change after start. Never destroyed: threads map paths until the
/// process is gone.
const std::string& Root() {
    static const auto* const root = new std::string(ReadRoot());
    return *root;
}

/// What a device's kernel tells of it, and where a machine keeps it whose kernel does not: zol-device-id
/// makes those files.
struct IdFile {
    std::string_view device;
    const char* made;
};
constexpr IdFile kIdFiles[] = {{ZOL_PATH_UNIQUE_ID, ZOL_PATH_STATE_DIR "/device/unique_id"},
                               {ZOL_PATH_LIFE_CYCLE_ID, ZOL_PATH_STATE_DIR "/device/life_cycle_id"},
                               {ZOL_PATH_CHIP_ID, ZOL_PATH_STATE_DIR "/device/chip_id"}};

const char* FileInUse(const char* path) {
    const auto* const id = std::find_if(std::begin(kIdFiles), std::end(kIdFiles),
                                        [path](const IdFile& file) { return file.device == path; });
    const bool isMade = id != std::end(kIdFiles) && access((Root() + path).c_str(), F_OK) != 0;
    return isMade ? id->made : path;
}

}  // namespace

extern "C" size_t device_path_map(const char* path, char* out, size_t size) {
    path = FileInUse(path);
    // A path that lies below the root already (a mount point that the system told) is not moved twice.
    const bool mapped = !Root().empty() && std::strncmp(path, (Root() + '/').c_str(), Root().size() + 1) == 0;
    const std::string_view root = mapped ? std::string_view("") : Root();
    const size_t length = std::strlen(path);
    if (root.size() + length >= size) {
        if (size > 0) {
            out[0] = '\0';
        }
        return 0;
    }
    std::memcpy(out, root.data(), root.size());
    std::memcpy(out + root.size(), path, length + 1);
    return root.size() + length;
}
