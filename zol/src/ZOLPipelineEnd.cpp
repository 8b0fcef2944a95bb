#include "ZOLPipelineEnd.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace zol {
namespace {

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
    // Nothing is ever written: the only event is that the last writing end is closed.
    pollfd end{m_reading, 0, 0};
    int ready = 1;
    if (m_reading >= 0) {
        do {
            ready = poll(&end, 1, timeoutMs);
        } while (ready < 0 && errno == EINTR);
    }
    Close();
    return ready == 1;
}

void PipelineEnd::Close() {
    CloseEnd(m_reading);
    CloseEnd(m_writing);
}

}  // namespace zol
