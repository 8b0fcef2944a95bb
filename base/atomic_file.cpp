#include "base/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/folders.h"
#include "base/system_error.h"
#include "base/unique_fd.h"

namespace base {
namespace {

UniqueFd Create(const std::string& path, mode_t mode) {
    return UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
}

/// Under the first name of "<path>.new.<number>" that nothing has.
UniqueFd CreateUnused(const std::string& path, mode_t mode, std::string& name) {
    UniqueFd file;
    for (int number = 1; !file && (number == 1 || errno == EEXIST); ++number) {
        name = path + ".new." + std::to_string(number);
        file = Create(name, mode);
    }
    return file;
}

}  // namespace

ReplacementFile::ReplacementFile(std::string path, Beside name)
    : m_path(std::move(path)), m_name(name), m_temporary(m_path + ".new") {}

ReplacementFile::~ReplacementFile() {
    m_file.reset();
    if (m_isLeftOver) {
        unlink(m_temporary.c_str());
    }
}

std::error_code ReplacementFile::Open(mode_t mode) {
    UniqueFd fd;
    if (m_name == Beside::Known) {
        unlink(m_temporary.c_str());  // what a crash left behind, or somebody put there
        fd = Create(m_temporary, mode);
    } else {
        fd = CreateUnused(m_path, mode, m_temporary);
    }
    if (!fd) {
        return LastError();
    }
    m_isLeftOver = true;
    m_file = OpenStream(std::move(fd), "w");
    if (m_file == nullptr) {
        return LastError();
    }
    // Unbuffered: nothing may be left for after the sync.
    std::setvbuf(m_file.get(), nullptr, _IONBF, 0);
    return {};
}

std::size_t ReplacementFile::Write(std::string_view content) {
    return std::fwrite(content.data(), 1, content.size(), m_file.get());
}

std::error_code ReplacementFile::SetMode(mode_t mode) {
    return ErrorUnless(fchmod(fileno(m_file.get()), mode) == 0);
}

std::error_code ReplacementFile::SetOwner(uid_t user, gid_t group) {
    return ErrorUnless(fchown(fileno(m_file.get()), user, group) == 0);
}

std::error_code ReplacementFile::Sync() {
    return ErrorUnless(fsync(fileno(m_file.get())) == 0);
}

std::error_code ReplacementFile::Close() {
    return ErrorUnless(std::fclose(m_file.release()) == 0);
}

std::error_code ReplacementFile::Replace() {
    if (rename(m_temporary.c_str(), m_path.c_str()) != 0) {
        return LastError();
    }
    m_isLeftOver = false;
    return SyncFolderOf(m_path);
}

std::error_code ReplacementFile::PutInPlace(std::string_view content) {
    if (Write(content) != content.size()) {
        return LastError();
    }
    if (const std::error_code error = Sync()) {
        return error;
    }
    if (const std::error_code error = Close()) {
        return error;
    }
    return Replace();
}

std::error_code ReplaceFile(const std::string& path, std::string_view content, mode_t mode, Beside name) {
    ReplacementFile file(path, name);
    const std::error_code error = file.Open(mode);
    return error ? error : file.PutInPlace(content);
}

}  // namespace base
