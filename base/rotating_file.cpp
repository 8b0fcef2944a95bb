#include "base/rotating_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <utility>

#include "base/folders.h"
#include "base/system_error.h"

namespace base {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr std::uint64_t kRetryNs = 1000000000;
constexpr std::string_view kEnding = ".log";

}  // namespace

RotatingFile::RotatingFile(Place place, Limits limits, Clock clock, Report report)
    : m_place(std::move(place)), m_limits(limits), m_clock(clock), m_report(std::move(report)) {
    const std::string name = m_place.path.substr(m_place.path.rfind('/') + 1);
    m_names.push_back(name);
    for (int age = 1; age <= m_limits.oldFiles; ++age) {
        const std::string number = "." + std::to_string(age);
        m_names.push_back(m_limits.numbers == Numbers::AtEnd
                              ? name + number
                              : name.substr(0, name.size() - kEnding.size()) + number + std::string(kEnding));
    }
}

void RotatingFile::Write(std::string_view lines) {
    if (!IsReady(static_cast<std::int64_t>(lines.size()))) {
        return;
    }
    const ssize_t written = write(m_file.Get(), lines.data(), lines.size());
    m_size += std::max<ssize_t>(written, 0);
    if (written == static_cast<ssize_t>(lines.size())) {
        m_isReported = false;
    } else {
        // Only a full disk takes a part, and says nothing.
        Fail("cannot be written",
             written < 0 ? LastError() : std::make_error_code(std::errc::no_space_on_device));
    }
}

/// True when the file under the path is open and has room for so many bytes.
bool RotatingFile::IsReady(std::int64_t more) {
    if (m_file && Fits(more) && m_clock() < m_nextLook) {
        return true;
    }
    if (!IsCurrent() && !(Open() && IsCurrent())) {
        return false;
    }
    m_nextLook = m_clock() + kLookNs;
    return Fits(more) || Rotate();
}

bool RotatingFile::Fits(std::int64_t more) const {
    return m_size == 0 || m_size + more <= m_limits.maxBytes;
}

/// True when what is open is what stands under the path.
bool RotatingFile::IsCurrent() {
    struct stat named {};
    struct stat opened {};
    if (!m_file || fstat(m_file.Get(), &opened) != 0 || lstat(m_openPath.c_str(), &named) != 0) {
        return false;
    }
    m_size = named.st_size;
    return named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

bool RotatingFile::Open() {
    if (m_clock() < m_nextAttempt) {
        return false;
    }
    const std::error_code error = OpenNow();
    return !error || FailToOpen("cannot be opened", error);
}

std::error_code RotatingFile::OpenNow() {
    m_file.Reset();
    OpenedFolder folder =
        OpenFolder(m_place.root, m_place.path.substr(0, m_place.path.rfind('/')), Make::All);
    if (folder.error) {
        return folder.error;
    }
    m_folder = std::move(folder.fd);
    m_openPath = folder.path + "/" + m_names.front();
    // Without O_NONBLOCK a pipe in the file's place would hang whoever logs.
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    UniqueFd file(openat(m_folder.Get(), m_names.front().c_str(), kFlags, kFileMode));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        return LastError();
    }
    if (!S_ISREG(status.st_mode)) {
        return std::make_error_code(std::errc::invalid_argument);
    }
    m_file = std::move(file);
    m_size = status.st_size;
    return {};
}

bool RotatingFile::Rotate() {
    // Whoever does not get the lock finds another process rotating: its lines still go to the old file.
    // Closing gives the lock back.
    if (flock(m_file.Get(), LOCK_EX | LOCK_NB) != 0) {
        return true;
    }
    std::error_code error;
    if (IsCurrent()) {
        error = MoveAll();
    }
    m_file.Reset();
    return error ? FailToOpen("cannot be rotated", error) : Open();
}

std::error_code RotatingFile::MoveAll() {
    const int folder = m_folder.Get();
    for (std::size_t age = m_names.size() - 1; age > 0; --age) {
        if (renameat(folder, m_names[age - 1].c_str(), folder, m_names[age].c_str()) != 0 &&
            errno != ENOENT) {
            return LastError();
        }
    }
    return {};
}

/// The fault may last: one report, not one for each line that is lost.
void RotatingFile::Fail(const char* what, const std::error_code& error) {
    if (!std::exchange(m_isReported, true)) {
        m_report(what, error);
    }
}

/// Nothing is open now; not every line is to try. Always false.
bool RotatingFile::FailToOpen(const char* what, const std::error_code& error) {
    m_nextAttempt = m_clock() + kRetryNs;
    Fail(what, error);
    return false;
}

}  // namespace base
