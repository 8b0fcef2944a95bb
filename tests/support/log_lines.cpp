#include "log_lines.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "device_paths.h"
#include "waiting.h"

PlatformLog::PlatformLog(const std::string& root)
    : m_file((root.empty() ? std::getenv("ZOL_ROOT") : root) + ZOL_PATH_LOG_DIR "/main.log") {
    std::error_code missing;
    const std::uintmax_t size = std::filesystem::file_size(m_file, missing);
    m_start = missing ? 0 : static_cast<std::size_t>(size);
}

int PlatformLog::Count(const std::string& part) const {
    std::ifstream log(m_file);
    log.seekg(static_cast<std::streamoff>(m_start));
    int count = 0;
    for (std::string line; std::getline(log, line);) {
        count += line.find(part) != std::string::npos ? 1 : 0;
    }
    return count;
}

bool PlatformLog::WaitFor(const std::string& part, int times) const {
    return Eventually([&] { return Count(part) >= times; });
}
