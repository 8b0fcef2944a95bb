#include "fakes.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <system_error>

#include "device_path.h"
#include "fake_internal.h"

namespace fs = std::filesystem;

namespace fakes {
namespace {

/// A folder of its own below $TMPDIR, which goes with the process. Other users may enter it.
class RootFolder {
public:
    RootFolder() = default;
    ~RootFolder() { Remove(); }
    RootFolder(const RootFolder&) = delete;
    RootFolder& operator=(const RootFolder&) = delete;

    std::string Path() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_path.empty()) {
            Make();
        }
        return m_path;
    }

    void Renew() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        Remove();
        Make();
    }

private:
    void Make() {
        m_path = (fs::canonical(fs::temp_directory_path()) / "zol-device-XXXXXX").string();
        if (mkdtemp(m_path.data()) == nullptr || chmod(m_path.c_str(), 0755) != 0) {
            std::abort();
        }
        for (const char* folder : {"dev", "etc", "proc", "tmp", "usr/bin", "var/lib", "var/log", "run"}) {
            fs::create_directories(fs::path(m_path) / folder);
        }
    }

    void Remove() {
        std::error_code ignored;
        if (!m_path.empty()) {
            fs::remove_all(m_path, ignored);
        }
    }

    std::mutex m_mutex;
    std::string m_path;
};

RootFolder& TheRoot() {
    static RootFolder root;
    return root;
}

}  // namespace

void Reset() {
    TheRoot().Renew();
    ResetBtHid();
    ResetClock();
    ResetPlatformServices();
    ResetServiceWatchdog();
    ResetVconf();
    ResetWas();
    ResetDevicePower();
    ResetDiagnostics();
    ResetRuntimeInfo();
    dlog::Clear();
}

std::string Root() {
    return TheRoot().Path();
}

void WriteDeviceFile(const std::string& devicePath, const std::string& content) {
    const fs::path path = Root() + devicePath;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string ReadDeviceFile(const std::string& devicePath) {
    const std::ifstream file(Root() + devicePath, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool DeviceFileExists(const std::string& devicePath) {
    return fs::exists(Root() + devicePath);
}

void MakeDeviceFolder(const std::string& devicePath) {
    fs::create_directories(Root() + devicePath);
}

}  // namespace fakes

extern "C" size_t device_path_map(const char* path, char* out, size_t size) {
    const std::string root = fakes::Root();
    const std::string mapped =
        std::strncmp(path, (root + '/').c_str(), root.size() + 1) == 0 ? path : root + path;
    if (mapped.size() >= size) {
        if (size > 0) {
            out[0] = '\0';
        }
        return 0;
    }
    std::memcpy(out, mapped.c_str(), mapped.size() + 1);
    return mapped.size();
}
