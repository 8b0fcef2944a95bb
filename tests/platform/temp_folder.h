#pragma once
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

/// A new folder that goes with all it holds when this goes out of scope.
class TempFolder {
public:
    explicit TempFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
        m_path = (parent / "zol-test-XXXXXX").string();
        if (mkdtemp(m_path.data()) == nullptr) {
            std::abort();
        }
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};
