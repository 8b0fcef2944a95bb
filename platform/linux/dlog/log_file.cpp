#include "dlog/log_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "folders.h"
#include "platform_clock.h"

namespace dlog {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr std::uint64_t kRetryNs = 1000000000;

}  // namespace

LogFile::LogFile(std::string path, std::int64_t maxBytes) : m_path(std::move(path)), m_maxBytes(maxBytes) {}

void LogFile::Write(std::string_view lines) {
    if (!Ready()) {
        return;
    }
    if (write(m_fd.Get(), lines.data(), lines.size()) != static_cast<ssize_t>(lines.size())) {
        Report(errno);
        return;
    }
    m_reported = false;
}

/// True when the file under the path is open and has room.
bool LogFile::Ready() {
    if (!IsCurrent() && !(Open() && IsCurrent())) {
        return false;
    }
    return m_size < m_maxBytes || TurnOver();
}

/// True when what is open is what stands under the path.
bool LogFile::IsCurrent() {
    struct stat named {};
    struct stat opened {};
    if (!m_fd || fstat(m_fd.Get(), &opened) != 0 || stat(m_path.c_str(), &named) != 0) {
        return false;
    }
    m_size = named.st_size;
    return named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

bool LogFile::Open() {
    const std::uint64_t now = platform_clock_steady_ns();
    if (now < m_nextAttemptNs) {
        return false;
    }
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
    m_fd.Reset(open(m_path.c_str(), kFlags, kFileMode));
    if (!m_fd && errno == ENOENT && platform::MakeParentFolders(m_path)) {
        m_fd.Reset(open(m_path.c_str(), kFlags, kFileMode));
    }
    if (!m_fd) {
        Report(errno);
        m_nextAttemptNs = now + kRetryNs;
        return false;
    }
    m_nextAttemptNs = 0;
    return true;
}

bool LogFile::TurnOver() {
    // All who write to this file take the same lock: the first one turns it over, the others find it gone.
    flock(m_fd.Get(), LOCK_EX);
    if (IsCurrent()) {
        for (int age = kOldFiles; age > 0; --age) {
            if (rename(OldName(age - 1).c_str(), OldName(age).c_str()) != 0 && errno != ENOENT) {
                break;
            }
        }
    }
    // Closing gives the lock back.
    return Open();
}

/// The fault may last: one line, not one for each that is lost.
void LogFile::Report(int error) {
    if (!m_reported) {
        m_reported = true;
        std::fprintf(stderr, "log file %s cannot be written: %s\n", m_path.c_str(), std::strerror(error));
    }
}

std::string LogFile::OldName(int age) const {
    constexpr std::size_t kEndLength = 4;  // of ".log"
    return age == 0 ? m_path
                    : m_path.substr(0, m_path.size() - kEndLength) + "." + std::to_string(age) + ".log";
}

}  // namespace dlog
