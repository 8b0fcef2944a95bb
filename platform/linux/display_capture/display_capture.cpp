#include "display_capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "base/process.h"
#include "base/unique_fd.h"
#include "device_path.h"
#include "display_capture/capture_tools.h"
#include "guarded.h"
#include "platform_log.h"

namespace platform {

namespace {

constexpr unsigned kToolTimeoutMs = 15000;
constexpr int kLargestSide = 16384;  ///< pixels

/// An empty file of its own in a folder; removed with its owner unless it was moved to its place.
/// Tools get its plain name: some of them read more than a name into special characters of a path.
class TemporaryFile {
public:
    TemporaryFile(const std::string& folder, const std::string& ending)
        : m_path(folder + "/.capture-XXXXXX" + ending) {
        m_fd.Reset(mkostemps(m_path.data(), static_cast<int>(ending.size()), O_CLOEXEC));
    }
    ~TemporaryFile() {
        if (m_fd) {
            unlink(m_path.c_str());
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    bool Made() const { return static_cast<bool>(m_fd); }
    std::string Name() const { return m_path.substr(m_path.rfind('/') + 1); }
    bool HasContent() const {
        struct stat status {};
        return stat(m_path.c_str(), &status) == 0 && status.st_size > 0;
    }
    /// Makes it durable and gives it its final name.
    bool MoveTo(const std::string& path) {
        // Through a descriptor of its own: a tool may have put another file in its place. The owner of the
        // stick may have put a link there: following it would make its target readable for everyone.
        const base::UniqueFd content(open(m_path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!content) {
            return false;
        }
        // Sticks without file modes refuse; there everybody may read it anyhow.
        static_cast<void>(fchmod(content.Get(), 0644));
        if (fsync(content.Get()) != 0 || rename(m_path.c_str(), path.c_str()) != 0) {
            return false;
        }
        m_fd.Reset();
        return true;
    }

private:
    std::string m_path;
    base::UniqueFd m_fd;
};

bool IsValid(const dc_capture_request* request) {
    const auto isSide = [](int pixels) { return pixels > 0 && pixels <= kLargestSide; };
    return request != nullptr && request->file != nullptr && *request->file != '\0' &&
           isSide(request->width) && isSide(request->height) && request->plane >= DC_PLANE_VIDEO &&
           request->plane <= DC_PLANE_ALL && request->rotation == DC_ROTATION_NONE &&
           (request->format == DC_FORMAT_RAW || request->format == DC_FORMAT_JPEG) && request->quality >= 1 &&
           request->quality <= 100;
}

/// Empty for a program that ended well.
std::string Failure(const base::ProcessEnd& end) {
    if (end.error == std::errc::timed_out) {
        return "did not end";
    }
    if (end.error) {
        return end.error.message();
    }
    if (end.status == 0) {
        return "";
    }
    return WIFEXITED(end.status) ? "status " + std::to_string(WEXITSTATUS(end.status))
                                 : "signal " + std::to_string(WTERMSIG(end.status));
}

bool Run(const CaptureWay& way, const std::string& folder, unsigned timeoutMs) {
    constexpr int kNoneInherited = -1;
    constexpr bool kQuiet = true;
    for (const Command& command : way.commands) {
        const std::string failure =
            Failure(base::RunProcess({command, folder, kNoneInherited, kQuiet, timeoutMs}));
        if (!failure.empty()) {
            PLATFORM_LOG(WARN, "capture with %s failed: %s: %s", way.tool.c_str(), command[0].c_str(),
                         failure.c_str());
            return false;
        }
    }
    return true;
}

}  // namespace

bool Capture(const dc_capture_request& request, unsigned toolTimeoutMs) {
    if (!HasDisplay()) {
        PLATFORM_LOG(ERROR, "no display to capture: neither WAYLAND_DISPLAY nor DISPLAY is set");
        return false;
    }
    const std::string target = DevicePath(request.file);
    const std::size_t slash = target.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : target.substr(0, slash + 1);
    // The ending is for tools that choose the format by it.
    const TemporaryFile raw(folder, ".png");
    TemporaryFile picture(folder, "");
    if (!raw.Made() || !picture.Made()) {
        PLATFORM_LOG(ERROR, "cannot write the capture %s: %s", request.file, std::strerror(errno));
        return false;
    }
    const auto ways = CaptureWays(request, raw.Name(), picture.Name());
    for (const CaptureWay& way : ways) {
        if (Run(way, folder, toolTimeoutMs) && picture.HasContent()) {
            if (picture.MoveTo(target)) {
                return true;
            }
            PLATFORM_LOG(ERROR, "cannot write the capture %s: %s", request.file, std::strerror(errno));
            return false;
        }
    }
    PLATFORM_LOG(ERROR, "cannot capture the display: %s",
                 ways.empty() ? "no capture tool is installed" : "every tool failed");
    return false;
}

}  // namespace platform

extern "C" int dc_request_capture_to_file_sync(const dc_capture_request* request) {
    const bool isCaptured = platform::Guarded("display capture", [&] {
        return platform::IsValid(request) && platform::Capture(*request, platform::kToolTimeoutMs);
    });
    return isCaptured ? 0 : -1;
}
