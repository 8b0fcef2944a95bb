#pragma once
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "base/unique_fd.h"

namespace keystore {

/// Tells one database file from another that later stands under the same name.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool empty = false;  ///< no bytes in it

    bool SameFile(const FileIdentity& other) const { return device == other.device && inode == other.inode; }
};

/// The files of one store, all in one folder: the database "vconf.db" with its "-wal" and "-shm", the lock
/// under which the database is replaced, and the doorbell that writers ring after a commit. Folder and files
/// are for the owner and the group "zol", where there is such a group. Holds no state but the folder's name;
/// any thread.
class StoreFiles {
public:
    explicit StoreFiles(std::string folder);

    const std::string& Folder() const { return m_folder; }
    const std::string& Database() const { return m_database; }
    /// Where a new database is built before it gets its name.
    const std::string& NewDatabase() const { return m_newDatabase; }

    /// Makes the folder and those above it. False with errno when it cannot be.
    [[nodiscard]] bool MakeFolder() const;

    /// The file that stands under the database's name now; nothing when there is none.
    [[nodiscard]] std::optional<FileIdentity> Current() const;

    /// True when there is a write-ahead log that is not empty.
    bool HasLog() const;

    /// Held shared while a connection is opened and exclusively while the database is replaced, so that
    /// nobody opens a half-moved one. Gives up after `patienceMs`; then, or when the lock file cannot be
    /// opened, the result owns nothing. A shared lock is not needed where no lock file exists.
    [[nodiscard]] base::UniqueFd Lock(int operation, int patienceMs) const;
    bool HasLock() const;

    /// Makes an empty NewDatabase(), whatever an interrupted earlier attempt left behind. False with errno.
    [[nodiscard]] bool BeginNew() const;
    /// Gives NewDatabase(), which nobody has open, its name, content and name durably. False with errno.
    [[nodiscard]] bool CommitNew() const;

    /// Wakes the watchers in every process. Writes nothing to the disk.
    void RingDoorbell() const;

    /// True for a file name in the folder whose changes say nothing about keys.
    static bool IsNoise(const char* name);
    /// True for the file that a commit is written to before it becomes visible.
    static bool IsWriteAheadLog(const char* name);

private:
    std::string m_folder;
    std::string m_database;
    std::string m_newDatabase;
    std::string m_lock;
    std::string m_doorbell;
};

}  // namespace keystore
