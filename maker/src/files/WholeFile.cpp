#include "WholeFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "FileDescriptor.h"
#include "MakerLog.h"
#include "TSFileSystem.h"
#include "device_path.h"

namespace maker {
namespace {

constexpr const char* kPartSuffix = ".part";

bool WriteAll(int file, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(file, content.data(), content.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        content.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    return true;
}

bool WritePart(const std::string& part, std::string_view content, mode_t mode) {
    unlink(part.c_str());  // what a crash left behind
    FileDescriptor file(open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
    return file && WriteAll(file.Get(), content) && fsync(file.Get()) == 0 && file.Close();
}

}  // namespace

bool WriteWholeFile(const std::string& devicePath, std::string_view content, mode_t mode) {
    const std::string path = DevicePath(devicePath);
    const std::string part = path + kPartSuffix;
    if (!WritePart(part, content, mode) || rename(part.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(part.c_str());
        MAKER_ERROR("cannot write %s: errno %d", devicePath.c_str(), error);
        return false;
    }
    return TSFileSystem::SyncFolderOf(devicePath);
}

}  // namespace maker
