#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <utility>

#include "base/inotify.h"
#include "log_buffer_files.h"
#include "source.h"

namespace dlogutil {
namespace {

// While there is no folder there is nothing to be woken by.
constexpr int kMissingFolderMs = 1000;
constexpr std::uint32_t kEvents = IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;

std::int64_t ClockUs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

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

    bool Wait() override {
        if (m_watch < 0 && WatchFolder()) {
            // What was logged between the last look and the watch wakes nobody.
            return true;
        }
        const bool going = WaitForInput(m_inotify.Fd(), m_watch < 0 ? kMissingFolderMs : -1);
        TakeEvents();
        return going;
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

bool WaitForInput(int fd, int timeoutMs) {
    // No events are asked of the output: that its reader is gone is reported all the same.
    std::array<pollfd, 2> fds = {pollfd{fd, POLLIN, 0}, pollfd{STDOUT_FILENO, 0, 0}};
    const int ready = poll(fds.data(), fds.size(), timeoutMs);
    return (ready >= 0 || errno == EINTR) && (fds[1].revents & (POLLERR | POLLHUP)) == 0;
}

}  // namespace dlogutil
