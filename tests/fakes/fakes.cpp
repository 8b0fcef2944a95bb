#include "fakes.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <system_error>
#include <vector>

#include "device_path.h"
#include "fake_internal.h"

namespace fs = std::filesystem;

namespace fakes {
namespace {

class RootFolder {
public:
    ~RootFolder() { Remove(); }

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
        std::string pattern = (fs::canonical(fs::temp_directory_path()) / "zol-test-XXXXXX").string();
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (mkdtemp(buffer.data()) == nullptr) {
            std::abort();
        }
        m_path = buffer.data();
        for (const char* folder : {"dev", "etc", "proc", "tmp", "usr/bin", "var/lib", "var/log", "run"}) {
            fs::create_directories(fs::path(m_path) / folder);
        }
    }

    void Remove() {
        if (!m_path.empty()) {
            std::error_code ignored;
            fs::remove_all(m_path, ignored);
            m_path.clear();
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
    std::ofstream(path, std::ios::binary) << content;
}

std::string ReadDeviceFile(const std::string& devicePath) {
    const std::ifstream file(Root() + devicePath, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
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
