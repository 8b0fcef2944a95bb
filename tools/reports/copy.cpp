#include "copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "base/system_error.h"
#include "base/unique_fd.h"
#include "text.h"

namespace reports {
namespace {

constexpr std::size_t kBlock = 16384;
constexpr mode_t kFolderMode = 0755;  // less the umask, as the next one
constexpr mode_t kFileMode = 0644;

Outcome Unwritable(const std::string& name) {
    return {Problem::Unwritable, tools::OneLine(name), base::LastError()};
}

bool Sync(int fd) {
    return fsync(fd) == 0 || errno == EINVAL;
}

bool WriteAll(int file, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = write(file, data.data(), data.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(written > 0 ? written : 0));
    }
    return true;
}

/// Makes the folders that a file lies in.
bool MakeFoldersOf(int folder, const std::string& name) {
    for (std::size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
        if (mkdirat(folder, name.substr(0, slash).c_str(), kFolderMode) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

Outcome CopyFile(int from, int to, const std::string& name) {
    const base::UniqueFd source(OpenFileAt(from, name));
    if (!source) {
        return {Problem::Unreadable, tools::OneLine(name), base::LastError()};
    }
    if (!MakeFoldersOf(to, name)) {
        return Unwritable(name);
    }
    const base::UniqueFd copy(
        openat(to, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (!copy) {
        return Unwritable(name);
    }
    std::array<char, kBlock> block;
    ssize_t length = 0;
    while ((length = read(source.Get(), block.data(), block.size())) > 0) {
        if (!WriteAll(copy.Get(), {block.data(), static_cast<std::size_t>(length)})) {
            return Unwritable(name);
        }
    }
    if (length < 0) {
        return {Problem::Unreadable, tools::OneLine(name), base::LastError()};
    }
    return Sync(copy.Get()) ? Outcome() : Unwritable(name);
}

/// Makes the new names in the folders of a file survive a power cut.
bool SyncFoldersOf(int folder, const std::string& name) {
    for (std::size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
        const base::UniqueFd inner(
            openat(folder, name.substr(0, slash).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!inner || !Sync(inner.Get())) {
            return false;
        }
    }
    return true;
}

}  // namespace

Outcome CopyReport(int from, const Report& report, What what, int to, const std::string& name) {
    if (mkdirat(to, name.c_str(), kFolderMode) != 0) {
        return Unwritable(name);
    }
    const base::UniqueFd copy(openat(to, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!copy) {
        return Unwritable(name);
    }
    for (const File& file : report.files) {
        if (what == What::HeaderOnly && file.name != kHeaderName) {
            continue;
        }
        if (Outcome outcome = CopyFile(from, copy.Get(), file.name)) {
            outcome.text = "cannot copy " + tools::OneLine(report.name) + "/" + outcome.text;
            return outcome;
        }
        if (!SyncFoldersOf(copy.Get(), file.name)) {
            return Unwritable(name);
        }
    }
    return Sync(copy.Get()) ? Outcome() : Unwritable(name);
}

}  // namespace reports
