#pragma once
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

/// A new folder that goes with all it holds when this goes out of scope. Other users may enter it.
class TemporaryFolder {
public:
    explicit TemporaryFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
        m_path = (std::filesystem::canonical(parent) / "zol-test-XXXXXX").string();
        if (mkdtemp(m_path.data()) == nullptr || chmod(m_path.c_str(), 0755) != 0) {
            std::abort();
        }
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};
