#pragma once
/// Files as tests write, read and compare them.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

/// Names of files and what they hold.
using Files = std::map<std::string, std::string>;

/// The whole content; empty when there is no such file.
inline std::string ReadFile(const std::filesystem::path& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

/// The lines without their ends.
inline std::vector<std::string> ReadLines(const std::filesystem::path& path) {
    std::istringstream text(ReadFile(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// What lies in a folder; what is no file holds "(no file)".
inline Files ReadFolder(const std::filesystem::path& folder) {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        files[entry.path().filename().string()] =
            entry.is_regular_file() ? ReadFile(entry.path()) : "(no file)";
    }
    return files;
}

/// Makes a file, or empties the one that is there, and writes it. Its folders are made.
inline void WriteFile(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

/// The permission bits; 0 when there is no such file.
inline mode_t ModeOf(const std::filesystem::path& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}
