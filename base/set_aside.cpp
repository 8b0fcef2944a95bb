#include "base/set_aside.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/folders.h"
#include "base/system_error.h"

namespace base {
namespace {

/// The database goes last: while it is there the work is not done.
constexpr const char* kParts[] = {"-shm", "-wal", "-journal", ""};

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

/// A missing database means that an earlier call was cut short: the companions kept are those of this one.
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
    result.error = SyncFolderOf(path);
    return result;
}

}  // namespace base
