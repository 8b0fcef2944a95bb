#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace dlog {

/// A log file that several processes append to and that any of them turns over when it has grown too large:
/// main.log becomes main.1.log, that one main.2.log, and the oldest goes. Not thread-safe.
class LogFile {
public:
    /// @param path     ends in ".log"; its folder is made when the first line is written
    /// @param maxBytes size at which the file is turned over
    LogFile(std::string path, std::int64_t maxBytes);

    /// Appends whole lines with one write, so that lines of several processes do not mix. A line that cannot
    /// be written is lost; the first one of a row is reported on the standard error.
    void Write(std::string_view lines);

    static constexpr int kOldFiles = 2;

private:
    bool Ready();
    bool IsCurrent();
    bool Open();
    bool TurnOver();
    void Report(int error);
    std::string OldName(int age) const;

    const std::string m_path;
    const std::int64_t m_maxBytes;
    base::UniqueFd m_fd;
    std::uint64_t m_nextAttemptNs = 0;  // steady time before which a failed opening is not tried again
    std::int64_t m_size = 0;            // of the file when it was last looked at
    bool m_reported = false;
};

}  // namespace dlog
