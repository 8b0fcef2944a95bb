#pragma once
#include <cstddef>
#include <string>

/// The lines of the platform's log file of a device root that were written since this was made.
class PlatformLog {
public:
    /// @param root a ZOL_ROOT; empty: this process's
    explicit PlatformLog(const std::string& root = "");
    /// Lines that contain `part`.
    int Count(const std::string& part) const;
    /// Waits until at least `times` lines contain `part`; false when kPatience ends.
    bool WaitFor(const std::string& part, int times = 1) const;

private:
    std::string m_file;
    std::size_t m_start = 0;
};
