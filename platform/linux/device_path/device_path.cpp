#include "device_path.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

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

}  // namespace

extern "C" size_t device_path_map(const char* path, char* out, size_t size) {
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
