#include "PipelineEnd.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <utility>

#include "platform_clock.h"

namespace zol {
namespace {

/// How often a wait looks, in microseconds: nobody who ends a recording notices.
constexpr std::uint64_t kLookUs = 10000;

void CloseEnd(int& fd) {
    if (fd >= 0) {
        close(std::exchange(fd, -1));
    }
}

}  // namespace

PipelineEnd::~PipelineEnd() {
    Close();
}

int PipelineEnd::Open() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    Close();
    std::array<int, 2> ends{-1, -1};
    // Closing at exec keeps it from every other program that is started meanwhile.
    if (pipe2(ends.data(), O_CLOEXEC) == 0) {
        m_reading = ends[0];
        m_writing = ends[1];
    }
    return m_writing;
}

void PipelineEnd::Started() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    CloseEnd(m_writing);
}

bool PipelineEnd::Wait(int timeoutMs) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::uint64_t end = platform_clock_steady_ns() + static_cast<std::uint64_t>(timeoutMs) * 1000000;
    bool gone = AreGone();
    while (!gone && platform_clock_steady_ns() < end) {
        platform_sleep_us(kLookUs);
        gone = AreGone();
    }
    Close();
    return gone;
}

bool PipelineEnd::AreGone() const {
    // Nothing is ever written: the only event is that the last writing end is closed.
    pollfd end{m_reading, 0, 0};
    return m_reading < 0 || poll(&end, 1, 0) == 1;
}

void PipelineEnd::Close() {
    CloseEnd(m_reading);
    CloseEnd(m_writing);
}

}  // namespace zol
