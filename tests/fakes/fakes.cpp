#include "fakes.h"

#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>

#include "device_path.h"
#include "fake_internal.h"
#include "files.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;

namespace fakes {
namespace {

class RootFolder {
public:
    std::string Path() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_folder) {
            Make();
        }
        return m_folder->Path();
    }

    void Renew() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        Make();
    }

private:
    void Make() {
        m_folder.emplace();
        for (const char* folder : {"dev", "etc", "proc", "tmp", "usr/bin", "var/lib", "var/log", "run"}) {
            fs::create_directories(fs::path(m_folder->Path()) / folder);
        }
    }

    std::mutex m_mutex;
    std::optional<TemporaryFolder> m_folder;
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
    WriteFile(Root() + devicePath, content);
}

std::string ReadDeviceFile(const std::string& devicePath) {
    return ReadFile(Root() + devicePath);
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
