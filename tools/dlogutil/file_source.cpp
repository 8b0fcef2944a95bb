#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>
#include <list>
#include <string_view>
#include <utility>

#include "base/inotify.h"
#include "base/system_error.h"
#include "base/unique_fd.h"
#include "source.h"

namespace dlogutil {
namespace {

// While there is no folder there is nothing to be woken by.
constexpr int kMissingFolderMs = 1000;
constexpr int kOldFiles = 2;
constexpr std::string_view kEnd = ".log";
// A line is some 4200 bytes at most; whatever is longer is none of ours.
constexpr std::size_t kMaxLine = 65536;
constexpr std::uint32_t kEvents = IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;

std::int64_t ClockUs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

/// One open log file and how far it has been read.
class LogFile {
public:
    explicit LogFile(const std::string& path) : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        m_error = base::ErrorUnless(m_fd && fstat(m_fd.Get(), &m_status) == 0);
        if (m_error) {
            m_fd.Reset();
        }
    }

    /// Why it is not open.
    std::error_code Error() const { return m_error; }
    bool IsOpen() const { return static_cast<bool>(m_fd); }
    bool Same(const LogFile& other) const {
        return m_status.st_dev == other.m_status.st_dev && m_status.st_ino == other.m_status.st_ino;
    }

    /// The next whole line, without its end; false when there is none yet.
    bool ReadLine(std::string* out) {
        for (;;) {
            const std::size_t end = m_pending.find('\n', m_begin);
            if (end != std::string::npos) {
                out->assign(m_pending, m_begin, end - m_begin);
                m_begin = end + 1;
                return true;
            }
            m_pending.erase(0, m_begin);
            m_begin = 0;
            if (m_pending.size() > kMaxLine) {
                m_pending.clear();
            }
            std::array<char, 16384> buffer;
            const ssize_t length = read(m_fd.Get(), buffer.data(), buffer.size());
            if (length <= 0) {
                return false;
            }
            m_pending.append(buffer.data(), static_cast<std::size_t>(length));
        }
    }

private:
    base::UniqueFd m_fd;
    std::error_code m_error;
    struct stat m_status {};
    std::string m_pending;  // read and not yet returned
    std::size_t m_begin = 0;
};

/// The files of one log buffer, read as one stream from the oldest line on: main.2.log, main.1.log, main.log.
/// Stays on the stream when the files are turned over meanwhile.
class LogBufferFiles {
public:
    /// @param path of the newest file; ends in ".log"
    explicit LogBufferFiles(std::string path) : m_path(std::move(path)) {}

    /// Finds files that are new since the last time.
    void Discover() {
        m_refused.clear();
        // Newest first: a file that is renamed meanwhile is met again under its older name, not missed.
        std::vector<LogFile> found;
        const std::string stem = m_path.substr(0, m_path.size() - kEnd.size());
        for (int age = 0; age <= kOldFiles; ++age) {
            LogFile file(age == 0 ? m_path : stem + "." + std::to_string(age) + std::string(kEnd));
            const auto isThis = [&file](const LogFile& other) { return other.Same(file); };
            if (file.Error() && file.Error() != std::errc::no_such_file_or_directory) {
                m_refused = file.Error();
            }
            if (!file.IsOpen() || std::any_of(found.begin(), found.end(), isThis)) {
                continue;
            }
            if (std::any_of(m_files.begin(), m_files.end(), isThis)) {
                break;
            }
            found.push_back(std::move(file));
        }
        std::move(found.rbegin(), found.rend(), std::back_inserter(m_files));
    }

    /// The next record, null when all there is has been read. Valid until Pop.
    const Record* Peek() {
        if (m_hasNext) {
            return &m_next;
        }
        // A writer may still finish a line in a file that has been turned over: all are asked.
        for (LogFile& file : m_files) {
            for (std::string line; file.ReadLine(&line);) {
                if (ParseLine(line, &m_next)) {
                    m_hasNext = true;
                    return &m_next;
                }
            }
        }
        while (m_files.size() > kOldFiles + 1) {
            m_files.pop_front();
        }
        return nullptr;
    }

    void Pop() { m_hasNext = false; }

    /// Why a file that is there was not opened.
    std::error_code Refused() const { return m_refused; }
    bool IsThere() const { return !m_files.empty(); }

private:
    std::string m_path;
    std::error_code m_refused;
    std::list<LogFile> m_files;  // oldest first
    Record m_next;
    bool m_hasNext = false;
};

class FileSource : public Source {
public:
    FileSource(std::string folder, const std::vector<std::string>& buffers) : m_folder(std::move(folder)) {
        for (const std::string& buffer : buffers) {
            m_buffers.emplace_back(m_folder + "/" + buffer + ".log");
        }
        // Without it the folder is looked at every second.
        static_cast<void>(m_inotify.Open());
        WatchFolder();
    }

    bool Drain(const std::function<void(const Record&)>& sink) override {
        const std::int64_t steadyMinusWall = ClockUs(CLOCK_MONOTONIC) - ClockUs(CLOCK_REALTIME);
        for (LogBufferFiles& buffer : m_buffers) {
            buffer.Discover();
        }
        while (LogBufferFiles* earliest = Earliest()) {
            Record record = *earliest->Peek();
            record.steadyUs = record.wallUs + steadyMinusWall;
            sink(record);
            earliest->Pop();
        }
        return true;
    }

    bool Wait(int stop) override {
        if (m_watch < 0 && WatchFolder()) {
            // What was logged between the last look and the watch wakes nobody.
            return true;
        }
        const bool going = WaitForInput(m_inotify.Fd(), stop, m_watch < 0 ? kMissingFolderMs : -1);
        TakeEvents();
        return going;
    }

    std::error_code Missing() const override {
        bool isThere = false;
        for (const LogBufferFiles& buffer : m_buffers) {
            if (buffer.Refused()) {
                return buffer.Refused();
            }
            isThere = isThere || buffer.IsThere();
        }
        return isThere ? std::error_code() : std::make_error_code(std::errc::no_such_file_or_directory);
    }

private:
    bool WatchFolder() {
        m_watch = m_inotify.Add(m_folder, kEvents);
        return m_watch >= 0;
    }

    /// What has happened does not matter, unless it is the end of the folder.
    void TakeEvents() {
        m_inotify.Read([this](const base::InotifyEvent& event) {
            if (event.watch == m_watch && (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
                m_inotify.Remove(std::exchange(m_watch, -1));
            }
        });
    }

    LogBufferFiles* Earliest() {
        LogBufferFiles* earliest = nullptr;
        for (LogBufferFiles& buffer : m_buffers) {
            const Record* record = buffer.Peek();
            if (record != nullptr && (earliest == nullptr || record->wallUs < earliest->Peek()->wallUs)) {
                earliest = &buffer;
            }
        }
        return earliest;
    }

    const std::string m_folder;
    base::Inotify m_inotify;
    int m_watch = -1;
    std::vector<LogBufferFiles> m_buffers;
};

}  // namespace

std::unique_ptr<Source> MakeFileSource(const std::string& folder, const std::vector<std::string>& buffers) {
    return std::make_unique<FileSource>(folder, buffers);
}

}  // namespace dlogutil
