#include "base/set_aside.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/folders.h"
#include "base/system_error.h"
#include "base/unique_fd.h"

namespace base {
namespace {

/// The database goes last: while it is there the work is not done.
constexpr const char* kParts[] = {"-shm", "-wal", "-journal", ""};

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

constexpr mode_t kFileMode = 0640;

/// A missing one means that an earlier call was cut short: the companions kept are those of this database.
void DropKept(const std::string& kept) {
    if (Exists(kept)) {
        for (const char* part : kParts) {
            unlink((kept + part).c_str());
        }
    }
}

}  // namespace

SetAsideResult SetAside(const std::string& path) {
    SetAsideResult result;
    const std::string kept = path + ".damaged";
    DropKept(kept);
    if (!Exists(path)) {
        // Without its database a companion would be taken for that of the next one to be set aside.
        const UniqueFd none(open(kept.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
    }
    bool isKept = true;
    for (const char* part : kParts) {
        const std::string from = path + part;
        if (rename(from.c_str(), (kept + part).c_str()) == 0 || errno == ENOENT) {
            continue;
        }
        isKept = false;
        if (unlink(from.c_str()) != 0) {
            result.error = LastError();
            return result;
        }
    }
    result.name = isKept ? kept : "";
    // Its place is clear. After a power cut the damaged one may be back; then it is set aside again.
    static_cast<void>(SyncFolderOf(path));
    return result;
}

}  // namespace base
