#include "ReplacementFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "TSFileSystem.h"
#include "device_path.h"

namespace zol {

TCReplacementFile::TCReplacementFile(const std::string& path)
    : m_devicePath(path), m_target(DevicePath(path)), m_temporary(m_target + ".new") {}

TCReplacementFile::~TCReplacementFile() {
    m_file.reset();
    if (m_isLeftOver) {
        unlink(m_temporary.c_str());
    }
}

bool TCReplacementFile::Open(mode_t mode) {
    const int descriptor =
        open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode);
    if (descriptor < 0) {
        return false;
    }
    m_isLeftOver = true;
    m_file.reset(fdopen(descriptor, "w"));
    if (m_file == nullptr) {
        const int error = errno;
        close(descriptor);
        errno = error;
        return false;
    }
    // Unbuffered: nothing may be left for after the sync.
    std::setvbuf(m_file.get(), nullptr, _IONBF, 0);
    return true;
}

std::size_t TCReplacementFile::Write(const std::string& content) {
    return std::fwrite(content.data(), 1, content.size(), m_file.get());
}

void TCReplacementFile::SetOwner(uid_t user, gid_t group) {
    [[maybe_unused]] const int ignored = fchown(fileno(m_file.get()), user, group);
}

bool TCReplacementFile::Sync() {
    return fsync(fileno(m_file.get())) == 0;
}

bool TCReplacementFile::Close() {
    return std::fclose(m_file.release()) == 0;
}

bool TCReplacementFile::Replace() {
    if (rename(m_temporary.c_str(), m_target.c_str()) != 0) {
        return false;
    }
    m_isLeftOver = false;
    TSFileSystem::SyncFolderOf(m_devicePath);
    return true;
}

}  // namespace zol
