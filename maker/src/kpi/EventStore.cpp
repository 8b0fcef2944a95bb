#include "EventStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "MakerLog.h"
#include "TSFileSystem.h"
#include "base/exception_wall.h"
#include "base/folders.h"
#include "base/set_aside.h"
#include "base/unique_fd.h"
#include "device_path.h"
#include "device_paths.h"
#include "platform_clock.h"

namespace KPILogFramework {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr std::uint64_t kBusyStepUs = 20000;  // between two looks at a locked database
constexpr int kBusySteps = 100;               // 2 s in all

constexpr const char* kSetup =
    // Only a synced journal survives a power cut; short ones keep the flash usage low.
    "PRAGMA synchronous = FULL;"
    "PRAGMA wal_autocheckpoint = 512;"
    "PRAGMA cache_size = -256;"
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS event ("
    " sequence INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL, type TEXT NOT NULL,"
    " category TEXT NOT NULL, event_id TEXT NOT NULL, description TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS dropped (one INTEGER PRIMARY KEY CHECK (one = 1), count INTEGER NOT NULL);"
    "INSERT OR IGNORE INTO dropped VALUES (1, 0);"
    "COMMIT;";

constexpr const char* kSelect =
    "SELECT sequence, time, type, category, event_id, description FROM event"
    " WHERE sequence > CASE WHEN (SELECT max(sequence) FROM event) < ?1 THEN 0 ELSE ?1 END ORDER BY sequence";

int WaitWhileBusy(void* /*unused*/, int steps) {
    if (steps >= kBusySteps) {
        return 0;
    }
    platform_sleep_us(kBusyStepUs);
    return 1;
}

bool IsDamage(int result) {
    // A schema that is not ours (SQLITE_ERROR) is as useless as a broken page.
    const int primary = result & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_ERROR;
}

/// @param fault what log lines say of it
bool MoveAside(const std::string& path, const char* fault) {
    const base::SetAsideResult kept = base::SetAside(path);
    if (kept.error) {
        MAKER_ERROR("the KPI log %s is %s, and its place cannot be cleared: %s", ZOL_PATH_KPI_DB, fault,
                    kept.error.message().c_str());
    } else {
        MAKER_ERROR("the KPI log %s is %s, %s", ZOL_PATH_KPI_DB, fault,
                    kept.name.empty() ? "removed" : "set aside as " ZOL_PATH_KPI_DB ".damaged");
    }
    return !kept.error;
}

ino_t InodeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/// SQLite would delete a journal that it finds beside a new database; it may hold events.
bool KeepLeftOverJournal(const std::string& path) {
    struct stat journal {};
    return access(path.c_str(), F_OK) == 0 || stat((path + "-wal").c_str(), &journal) != 0 ||
           journal.st_size == 0 || MoveAside(path, "gone and its journal is not");
}

/// SQLite would make the file readable for everyone. The descriptor is closed before the first connection
/// exists, since closing it later would drop the connection's locks.
bool MakeFile(const std::string& path) {
    const base::UniqueFd file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode));
    return file || errno == EEXIST;
}

}  // namespace

constexpr std::array<const char*, CLogger::Store::STATEMENTS> CLogger::Store::kStatements = {
    "BEGIN IMMEDIATE",
    "INSERT INTO event (time, type, category, event_id, description) VALUES (?, ?, ?, ?, ?)",
    "SELECT (page_count - freelist_count) * page_size"
    " FROM pragma_page_count, pragma_freelist_count, pragma_page_size",
    "SELECT min(sequence) FROM event",
    "DELETE FROM event WHERE sequence <= ?1 AND sequence < ?2",
    "UPDATE dropped SET count = count + ?1",
    "COMMIT",
};

void CLogger::Store::Close() {
    m_statements = {};
    m_database.reset();
    m_inode = 0;
    m_writable = false;
}

int CLogger::Store::Execute(const char* sql) {
    return sqlite3_exec(m_database.get(), sql, nullptr, nullptr, nullptr);
}

int CLogger::Store::Connect(const std::string& path, int flags) {
    Close();
    // SQLite refuses a link in any part of a path; those of the image are followed here.
    const base::OpenedFolder folder =
        base::OpenFolder(DevicePath("/"), DevicePath(ZOL_PATH_STATE_DIR), base::Make::Nothing);
    if (folder.error) {
        return SQLITE_CANTOPEN;
    }
    const std::string resolved = folder.path + path.substr(path.rfind('/'));
    sqlite3* database = nullptr;
    const int result = sqlite3_open_v2(resolved.c_str(), &database,
                                       flags | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX, nullptr);
    m_database.reset(database);
    if (result != SQLITE_OK) {
        return result;
    }
    m_inode = InodeOf(path);
    sqlite3_busy_handler(database, WaitWhileBusy, nullptr);
    // Readers that may not write the folder need the journal's files to be there.
    int keep = 1;
    sqlite3_file_control(database, "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
    return SQLITE_OK;
}

int CLogger::Store::CheckPages() {
    const base::StatementPtr statement = base::Prepare(m_database.get(), "PRAGMA quick_check(1)");
    base::Run check(statement);
    if (check.Step() != SQLITE_ROW) {
        return sqlite3_errcode(m_database.get());
    }
    return check.Text(0) == "ok" ? SQLITE_OK : SQLITE_CORRUPT;
}

int CLogger::Store::Prepare() {
    // Of a new log: an event is a few hundred bytes, and a page is what is written for it.
    int result = Execute("PRAGMA page_size = 1024; PRAGMA journal_mode = WAL");
    if (result == SQLITE_OK) {
        result = CheckPages();
    }
    if (result == SQLITE_OK) {
        result = Execute(kSetup);
    }
    for (std::size_t i = 0; result == SQLITE_OK && i < STATEMENTS; ++i) {
        m_statements[i] = base::Prepare(m_database.get(), kStatements[i]);
        result = m_statements[i] == nullptr ? sqlite3_errcode(m_database.get()) : SQLITE_OK;
    }
    return result;
}

bool CLogger::Store::SetAside(const std::string& path) {
    const ino_t damaged = m_inode;
    Close();
    if (InodeOf(path) != damaged) {
        return true;  // another process was faster
    }
    return MoveAside(path, "damaged");
}

int CLogger::Store::OpenForWriting() {
    const std::string path = DevicePath(ZOL_PATH_KPI_DB);
    if (m_writable && m_inode == InodeOf(path)) {
        return RESULT_SUCCESS;
    }
    Close();
    constexpr int kAttempts = 2;  // the second one on a new database
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (!TSFileSystem::MakeDir(ZOL_PATH_STATE_DIR, true) || !KeepLeftOverJournal(path) ||
            !MakeFile(path)) {
            break;
        }
        int result = Connect(path, SQLITE_OPEN_READWRITE);
        if (result == SQLITE_OK) {
            result = Prepare();
        }
        if (result == SQLITE_OK) {
            m_writable = true;
            return RESULT_SUCCESS;
        }
        MAKER_ERROR("cannot open the KPI log %s: %s", ZOL_PATH_KPI_DB, sqlite3_errstr(result));
        if (!IsDamage(result) || !SetAside(path)) {
            break;
        }
    }
    Close();
    return RESULT_NO_STORE;
}

int CLogger::Store::Insert(const TSKpiEvent& event) {
    base::Run insert(m_statements[INSERT]);
    insert.Bind(1, event.timeSeconds);
    insert.Bind(2, event.type);
    insert.Bind(3, event.category);
    insert.Bind(4, event.eventId);
    insert.Bind(5, event.description);
    const int result = insert.Step();
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

int CLogger::Store::Run(EStatement statement) {
    const int result = base::Run(m_statements[statement]).Step();
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

int CLogger::Store::Number(const base::StatementPtr& statement, std::int64_t* number) {
    base::Run query(statement);
    const int result = query.Step();
    if (result != SQLITE_ROW) {
        return result == SQLITE_DONE ? SQLITE_ERROR : result;
    }
    *number = query.Number(0);
    return SQLITE_OK;
}

int CLogger::Store::Number(const char* sql, std::int64_t* number) {
    const base::StatementPtr statement = base::Prepare(m_database.get(), sql);
    return statement != nullptr ? Number(statement, number) : sqlite3_errcode(m_database.get());
}

int CLogger::Store::CountDropped(std::int64_t count) {
    base::Run update(m_statements[COUNT_DROPPED]);
    update.Bind(1, count);
    const int result = update.Step();
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

int CLogger::Store::DropUpTo(std::int64_t last) {
    int dropped = 0;
    {
        base::Run drop(m_statements[DROP]);
        drop.Bind(1, last);
        drop.Bind(2, std::int64_t{sqlite3_last_insert_rowid(m_database.get())});
        const int result = drop.Step();
        if (result != SQLITE_DONE) {
            return result;
        }
        dropped = sqlite3_changes(m_database.get());
    }
    return dropped > 0 ? CountDropped(dropped) : SQLITE_OK;
}

/// After an event was inserted.
int CLogger::Store::DropOldest() {
    const std::int64_t newest = sqlite3_last_insert_rowid(m_database.get());
    int result = DropUpTo(newest - MAX_EVENTS);
    std::int64_t oldest = 0;
    std::int64_t bytes = 0;
    while (result == SQLITE_OK && (result = Number(m_statements[USED_BYTES], &bytes)) == SQLITE_OK &&
           bytes > MAX_BYTES && (result = Number(m_statements[OLDEST], &oldest)) == SQLITE_OK &&
           oldest < newest) {
        result = DropUpTo(oldest);
    }
    return result;
}

void CLogger::Store::Enqueue(const std::string& type, const std::string& category, const std::string& eventId,
                             const std::string& description) {
    platform_time_t now{};
    platform_clock_realtime(&now);
    m_waiting.push_back({0, now.seconds, type, category, eventId, description});
}

int CLogger::Store::StoreWaiting() {
    int result = RESULT_WRITE_FAILED;
    base::CatchAll([&] { result = TryToStoreWaiting(); },
                   [&](const char* why) {
                       MAKER_ERROR("cannot write the KPI log %s: %s", ZOL_PATH_KPI_DB, why);
                       Close();  // and with it the transaction under way
                   });
    if (result != RESULT_SUCCESS) {
        BoundWaiting();
        return result;
    }
    if (m_waiting.size() > 1) {
        MAKER_LOG(DLOG_PRIORITY_INFO, "the KPI log %s works again: %zu events that waited are stored",
                  ZOL_PATH_KPI_DB, m_waiting.size() - 1);
    }
    m_waiting.clear();
    m_lost = 0;
    return RESULT_SUCCESS;
}

void CLogger::Store::BoundWaiting() {
    std::size_t bytes = 0;
    std::size_t kept = 0;  // the newest ones
    while (kept < m_waiting.size() && kept < MAX_WAITING_EVENTS) {
        const TSKpiEvent& event = m_waiting[m_waiting.size() - 1 - kept];
        bytes += event.type.size() + event.category.size() + event.eventId.size() + event.description.size();
        if (bytes > MAX_WAITING_BYTES) {
            break;
        }
        ++kept;
    }
    const std::size_t lost = m_waiting.size() - kept;
    if (lost > 0) {
        MAKER_ERROR("too many KPI events wait to be stored: the %zu oldest are dropped", lost);
        m_waiting.erase(m_waiting.begin(), m_waiting.begin() + static_cast<std::ptrdiff_t>(lost));
        m_lost += static_cast<std::int64_t>(lost);
    }
}

int CLogger::Store::Append() {
    int result = Run(BEGIN);
    for (auto event = m_waiting.begin(); result == SQLITE_OK && event != m_waiting.end(); ++event) {
        result = Insert(*event);
    }
    if (result == SQLITE_OK && m_lost > 0) {
        result = CountDropped(m_lost);
    }
    if (result == SQLITE_OK) {
        result = DropOldest();
    }
    return result == SQLITE_OK ? Run(COMMIT) : result;
}

int CLogger::Store::TryToStoreWaiting() {
    constexpr int kAttempts = 2;  // the second one on a new database
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int opened = OpenForWriting();
        if (opened != RESULT_SUCCESS) {
            return opened;
        }
        const int result = Append();
        if (result == SQLITE_OK) {
            return RESULT_SUCCESS;
        }
        MAKER_ERROR("cannot write the KPI log %s: %s", ZOL_PATH_KPI_DB, sqlite3_errmsg(m_database.get()));
        static_cast<void>(Execute("ROLLBACK"));  // what failed may have rolled back already
        if (!IsDamage(result) || !SetAside(DevicePath(ZOL_PATH_KPI_DB))) {
            break;
        }
    }
    return RESULT_WRITE_FAILED;
}

bool CLogger::Store::HoldsTables() {
    // What cannot even be asked is for the caller to find out and report.
    std::int64_t tables = 0;
    return Number("SELECT count(*) FROM sqlite_master WHERE name IN ('event', 'dropped')", &tables) !=
               SQLITE_OK ||
           tables == 2;
}

CLogger::Store::EPresence CLogger::Store::OpenExisting() {
    const std::string path = DevicePath(ZOL_PATH_KPI_DB);
    errno = 0;
    const ino_t inode = InodeOf(path);
    if (inode == 0) {
        const int error = errno;
        Close();
        return error == ENOENT ? EPresence::ABSENT : EPresence::FAILED;
    }
    if (m_database != nullptr && m_inode == inode) {
        return HoldsTables() ? EPresence::OPEN : EPresence::ABSENT;
    }
    // SQLite falls back to reading when this process may not write.
    const int result = Connect(path, SQLITE_OPEN_READWRITE);
    if (result != SQLITE_OK) {
        MAKER_ERROR("cannot open the KPI log %s: %s", ZOL_PATH_KPI_DB, sqlite3_errstr(result));
        Close();
        return EPresence::FAILED;
    }
    return HoldsTables() ? EPresence::OPEN : EPresence::ABSENT;
}

bool CLogger::Store::List(std::vector<TSKpiEvent>& events, std::int64_t after) {
    events.clear();
    const EPresence presence = OpenExisting();
    if (presence != EPresence::OPEN) {
        return presence == EPresence::ABSENT;
    }
    const base::StatementPtr statement = base::Prepare(m_database.get(), kSelect);
    base::Run select(statement);
    select.Bind(1, after);
    int result = SQLITE_ROW;
    while ((result = select.Step()) == SQLITE_ROW) {
        events.push_back({select.Number(0), select.Number(1), std::string(select.Text(2)),
                          std::string(select.Text(3)), std::string(select.Text(4)),
                          std::string(select.Text(5))});
    }
    if (result != SQLITE_DONE) {
        MAKER_ERROR("cannot read the KPI log %s: %s", ZOL_PATH_KPI_DB, sqlite3_errmsg(m_database.get()));
    }
    return result == SQLITE_DONE;
}

std::int64_t CLogger::Store::Dropped() {
    const EPresence presence = OpenExisting();
    if (presence != EPresence::OPEN) {
        return presence == EPresence::ABSENT ? 0 : -1;
    }
    std::int64_t count = 0;
    if (Number("SELECT count FROM dropped", &count) != SQLITE_OK) {
        MAKER_ERROR("cannot read the KPI log %s: %s", ZOL_PATH_KPI_DB, sqlite3_errmsg(m_database.get()));
        return -1;
    }
    return count;
}

}  // namespace KPILogFramework
