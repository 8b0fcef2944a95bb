#include "source.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "device_path.h"
#include "device_paths.h"

namespace dlogutil {

std::unique_ptr<Source> OpenLog(const std::vector<std::string>& buffers,
                                const std::vector<std::string>& tags) {
    if (access(DevicePath(ZOL_PATH_JOURNAL_SOCKET).c_str(), F_OK) == 0) {
        return MakeJournalSource(DevicePath("/"), buffers, tags);
    }
    return MakeFileSource(DevicePath(ZOL_PATH_LOG_DIR), buffers);
}

bool WaitForInput(int fd, int stop, int timeoutMs) {
    // No events are asked of the output: that its reader is gone is reported all the same.
    std::array<pollfd, 3> fds = {pollfd{fd, POLLIN, 0}, pollfd{stop, POLLIN, 0}, pollfd{STDOUT_FILENO, 0, 0}};
    const int ready = poll(fds.data(), fds.size(), timeoutMs);
    return (ready >= 0 || errno == EINTR) && (fds[2].revents & (POLLERR | POLLHUP)) == 0;
}

}  // namespace dlogutil
