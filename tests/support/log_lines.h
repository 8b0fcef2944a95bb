#pragma once
#include <cstdlib>
#include <fstream>
#include <string>

#include "device_paths.h"
#include "waiting.h"

/// The lines of the platform's log file of a device root that were written since this was made.
class PlatformLog {
public:
    /// @param root a ZOL_ROOT; empty: this process's
    explicit PlatformLog(const std::string& root = "")
        : m_file((root.empty() ? std::getenv("ZOL_ROOT") : root) + ZOL_PATH_LOG_DIR "/main.log") {
        std::ifstream log(m_file, std::ios::ate);
        m_start = log.is_open() ? log.tellg() : std::streampos(0);
    }
    /// Lines that contain `part`.
    int Count(const std::string& part) const {
        std::ifstream log(m_file);
        log.seekg(m_start);
        int count = 0;
        for (std::string line; std::getline(log, line);) {
            count += line.find(part) != std::string::npos ? 1 : 0;
        }
        return count;
    }
    /// Waits until at least `times` lines contain `part`; false when kPatience ends.
    [[nodiscard]] bool WaitFor(const std::string& part, int times = 1) const {
        return Eventually([&] { return Count(part) >= times; });
    }

private:
    std::string m_file;
    std::streampos m_start;
};
