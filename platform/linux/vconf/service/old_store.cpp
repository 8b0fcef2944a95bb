#include "vconf/service/old_store.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

#include "base/folders.h"
#include "device_path.h"
#include "platform_clock.h"
#include "platform_log.h"
#include "vconf.h"
#include "vconf/service/hardened_sqlite.h"
#include "vconf/service/quotas.h"

namespace keystore {
namespace {

constexpr const char* kName = "vconf.db";
constexpr const char* kLogEnd = "-wal";
constexpr const char* kDoneEnd = ".old";
constexpr off_t kMaxFileBytes = off_t{64} * 1024 * 1024;
constexpr std::uint64_t kLongestReadNs = 5000000000;

constexpr const char* kOldSchema =
    "CREATE TABLE keys(name TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, value,"
    " change INTEGER NOT NULL) WITHOUT ROWID\n"
    "CREATE UNIQUE INDEX keys_by_change ON keys(change)\n";

base::OpenedFolder OpenOld(const std::string& folder) {
    return base::OpenFolder(DevicePath("/"), folder, base::Make::Nothing);
}

/// False when there is no such file or one that is not to be touched.
bool CopyFile(const base::OpenedFolder& folder, const std::string& name, const std::string& copy) {
    const base::UniqueFd from(
        openat(folder.fd.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!from || fstat(from.Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1 ||
        status.st_size > kMaxFileBytes) {
        return false;
    }
    unlink(copy.c_str());
    const base::UniqueFd to(open(copy.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    ssize_t sent = 1;
    for (off_t left = status.st_size; left > 0 && sent > 0; left -= sent) {
        sent = sendfile(to.Get(), from.Get(), nullptr, static_cast<std::size_t>(left));
    }
    return to && sent > 0;
}

/// Deletes what SQLite may have made of the copy. Its end allocates nothing: it may come because memory has
/// run out.
class Copy {
public:
    explicit Copy(const std::string& path) : m_files{path, path + kLogEnd, path + "-shm", path + "-journal"} {
        Delete();
    }
    ~Copy() { Delete(); }
    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;
    const std::string& Path() const { return m_files.front(); }

private:
    void Delete() const {
        for (const std::string& file : m_files) {
            unlink(file.c_str());
        }
    }
    const std::array<std::string, 4> m_files;
};

bool ReadKey(const base::Run& run, std::string* key, Value* value) {
    *key = run.Text(0);
    const std::int64_t type = run.Number(1);
    const std::int64_t number = run.Number(2);
    const bool isKey = !key->empty() && key->size() <= kMaxKeyBytes && key->find('\0') == std::string::npos;
    if (type == VCONF_TYPE_STRING) {
        *value = {VCONF_TYPE_STRING, 0, std::string(run.Text(2))};
        return isKey && value->text.size() <= kMaxTextBytes && value->text.find('\0') == std::string::npos;
    }
    *value = {static_cast<int>(type), static_cast<int>(number), {}};
    const bool fits = number >= std::numeric_limits<std::int32_t>::min() &&
                      number <= std::numeric_limits<std::int32_t>::max();
    return isKey && fits &&
           (type == VCONF_TYPE_INT || (type == VCONF_TYPE_BOOL && (number == 0 || number == 1)));
}

}  // namespace

bool TakeOverOldStore(const std::string& folder, const std::string& copyPath,
                      const std::function<bool(const std::string& key, const Value& value)>& take) {
    const base::OpenedFolder old = OpenOld(folder);
    const Copy copy(copyPath);
    if (old.error || !CopyFile(old, kName, copy.Path())) {
        return false;
    }
    static_cast<void>(
        CopyFile(old, std::string(kName) + kLogEnd, copy.Path() + kLogEnd));  // there may be none
    const std::uint64_t deadline = platform_clock_steady_ns() + kLongestReadNs;
    std::string reason = "it is no key store";
    const base::DatabasePtr database = OpenHardened(copy.Path(), SQLITE_OPEN_READWRITE, &deadline, &reason);
    if (database == nullptr || SchemaOf(database.get()) != kOldSchema) {
        PLATFORM_LOG(ERROR, "key store of an earlier version in %s is left alone: %s", folder.c_str(),
                     reason.c_str());
        return false;
    }
    const base::StatementPtr all =
        base::Prepare(database.get(), "SELECT name, type, value FROM keys WHERE type <> 0");
    std::int64_t keys = 0;
    std::int64_t bytes = 0;
    std::int64_t left = 0;
    base::Run run(all);
    int code = run.Step();
    for (; code == SQLITE_ROW; code = run.Step()) {
        std::string key;
        Value value;
        const bool isKey = ReadKey(run, &key, &value);
        const auto size = static_cast<std::int64_t>(key.size() + value.text.size());
        if (!isKey || keys == kMaxKeys || bytes + size > kMaxKeyStoreBytes || !take(key, value)) {
            ++left;
            continue;
        }
        ++keys;
        bytes += size;
    }
    PLATFORM_LOG(INFO, "key store of an earlier version in %s: %lld keys taken over, %lld left out%s",
                 folder.c_str(), static_cast<long long>(keys), static_cast<long long>(left),
                 code == SQLITE_DONE ? "" : ", the rest cannot be read");
    return true;
}

void ForgetOldStore(const std::string& folder) {
    const base::OpenedFolder old = OpenOld(folder);
    for (const std::string end : {"", kLogEnd}) {
        if (!old.error) {
            // Without the right to do it nothing is lost: the new store is there, and the old one not looked
            // at.
            static_cast<void>(renameat(old.fd.Get(), (kName + end).c_str(), old.fd.Get(),
                                       (std::string(kName) + kDoneEnd + end).c_str()));
        }
    }
}

}  // namespace keystore
