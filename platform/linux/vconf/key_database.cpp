#include "vconf/key_database.h"

#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/set_aside.h"
#include "platform_log.h"
#include "vconf.h"

namespace keystore {
namespace {

// How long an operation waits for a lock that another process holds, and how long once one has waited in
// vain.
constexpr int kPatienceMs = 2000;
constexpr int kFaultyPatienceMs = 50;
// A file that is replaced again and again under the operation is no reason to go on for ever.
constexpr int kMaxAttempts = 4;
constexpr int kLockLooks = 2;

// The answers that are none of SQLite's: its own codes are not negative.
constexpr int kNoStore = -1;

// The write-ahead log is folded into the database every 256 pages (1 MiB) and cut back to that size.
constexpr const char* kSettings =
    "PRAGMA cache_size=-256; PRAGMA wal_autocheckpoint=256; PRAGMA journal_size_limit=1048576;";

// `change` orders all changes of the store. A removed key keeps its row, without a value, so that its
// removal has a place in that order. Made without flushes, under a name that nobody opens: other processes
// wait for the end of it, and the finished file is flushed before it gets its own name.
constexpr const char* kSchema =
    "PRAGMA synchronous=OFF;"
    "PRAGMA journal_mode=WAL;"
    "CREATE TABLE keys(name TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, value,"
    " change INTEGER NOT NULL) WITHOUT ROWID;"
    "CREATE UNIQUE INDEX keys_by_change ON keys(change);";

#define NEXT_CHANGE "(SELECT coalesce(max(change), 0) + 1 FROM keys)"
constexpr const char* kGet = "SELECT type, value FROM keys WHERE name = ?1";
constexpr const char* kSet = "INSERT INTO keys(name, type, value, change) VALUES(?1, ?2, ?3, " NEXT_CHANGE
                             ") ON CONFLICT(name) DO UPDATE SET type = excluded.type, value = "
                             "excluded.value, change = excluded.change";
constexpr const char* kRemove =
    "UPDATE keys SET type = 0, value = NULL, change = " NEXT_CHANGE " WHERE name = ?1 AND type <> 0";
#undef NEXT_CHANGE
constexpr const char* kEnd = "SELECT coalesce(max(change), 0) FROM keys";
constexpr const char* kChanges =
    "SELECT type, value, change, name FROM keys WHERE change > ?1 ORDER BY change LIMIT ?2";

bool IsDamage(int code) {
    const int primary = code & 0xff;
    return code > 0 && (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB);
}

/// Column 0 is the type, column 1 the value.
Value ReadValue(base::Run& run) {
    Value value;
    value.type = static_cast<int>(run.Number(0));
    if (value.type == VCONF_TYPE_STRING) {
        value.text = run.Text(1);
    } else if (value.type == VCONF_TYPE_INT || value.type == VCONF_TYPE_BOOL) {
        value.number = static_cast<int>(run.Number(1));
    } else {
        value.type = VCONF_TYPE_NONE;
    }
    return value;
}

}  // namespace

KeyDatabase::KeyDatabase(std::string folder, Durability durability)
    : m_files(std::move(folder)), m_durability(durability) {}

bool KeyDatabase::Get(std::string_view key, Value* out) {
    bool found = false;
    const bool read = Perform(READ, [&] {
        base::Run run(m_get);
        run.Bind(1, key);
        const int code = run.Step();
        if (code != SQLITE_ROW) {
            return code;
        }
        *out = ReadValue(run);
        found = out->type != VCONF_TYPE_NONE;
        return SQLITE_DONE;
    });
    if (read && !found) {
        errno = ENOENT;
    }
    return read && found;
}

bool KeyDatabase::Set(std::string_view key, const Value& value) {
    const bool stored = Perform(WRITE, [&] {
        base::Run run(m_set);
        run.Bind(1, key);
        run.Bind(2, static_cast<std::int64_t>(value.type));
        if (value.type == VCONF_TYPE_STRING) {
            run.Bind(3, std::string_view(value.text));
        } else {
            run.Bind(3, static_cast<std::int64_t>(value.number));
        }
        return run.Step();
    });
    if (stored) {
        m_files.RingDoorbell();
    }
    return stored;
}

bool KeyDatabase::Remove(std::string_view key) {
    const bool removed = Perform(WRITE, [&] {
        base::Run run(m_remove);
        run.Bind(1, key);
        return run.Step();
    });
    if (removed) {
        m_files.RingDoorbell();
    }
    return removed;
}

bool KeyDatabase::End(Position* out) {
    // Whoever watches needs the file that it will see changing.
    return Perform(WRITE, [&] {
        base::Run run(m_end);
        const int code = run.Step();
        if (code != SQLITE_ROW) {
            return code;
        }
        *out = {m_generation, run.Number(0)};
        return SQLITE_DONE;
    });
}

bool KeyDatabase::ReadChanges(Position* position, std::vector<Change>* out) {
    const std::size_t before = out->size();
    Position reached;
    const bool read = Perform(READ, [&] {
        out->resize(before);
        reached = position->generation == m_generation ? *position : Position{m_generation, 0};
        base::Run run(m_changes);
        run.Bind(1, reached.number);
        run.Bind(2, static_cast<std::int64_t>(kMaxChanges));
        int code = run.Step();
        for (; code == SQLITE_ROW; code = run.Step()) {
            reached.number = run.Number(2);
            out->push_back({reached, std::string(run.Text(3)), ReadValue(run)});
        }
        return code;
    });
    if (!read) {
        out->resize(before);
        return false;
    }
    if (reached.generation != 0) {
        *position = reached;
    }
    return true;
}

/// Runs `operation` on an open connection until it has run on the database that stands under its name and
/// is not damaged. The operation answers with SQLITE_DONE or an error code.
template <typename Operation>
bool KeyDatabase::Perform(Access access, Operation operation) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_denied = false;
    int code = SQLITE_BUSY;
    for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
        code = Open(access);
        if (code == SQLITE_OK) {
            sqlite3_busy_timeout(m_connection.get(), PatienceMs(access));
            code = operation();
            if (code != SQLITE_DONE) {
                m_reason = sqlite3_errmsg(m_connection.get());
            }
        }
        if (IsDamage(code)) {
            code = ReplaceDamaged();
            if (code != SQLITE_OK && !Replaced()) {
                break;
            }
        } else if (IsFinal(access, code)) {
            break;
        }
    }
    return Judge(access, code);
}

/// True when another attempt would change nothing. What failed, or was written, while the file was replaced
/// says nothing about the one that stands there now.
bool KeyDatabase::IsFinal(Access access, int code) const {
    if (access == READ && (code == SQLITE_DONE || code == kNoStore)) {
        return true;
    }
    return code != kNoStore && !Replaced();
}

/// SQLITE_OK with an open connection, kNoStore when there is nothing to read, else an error code.
int KeyDatabase::Open(Access access) {
    if (m_connection != nullptr) {
        if (!Replaced()) {
            return SQLITE_OK;
        }
        Close();
    }
    const int code = OpenExisting();
    if (code != kNoStore || access == READ) {
        return code;
    }
    const int created = Create();
    return created == SQLITE_OK ? OpenExisting() : created;
}

int KeyDatabase::OpenExisting() {
    m_identity = m_files.Current();
    if (!m_identity) {
        return errno == ENOENT || errno == ENOTDIR ? kNoStore : Fail(SQLITE_CANTOPEN, std::strerror(errno));
    }
    // Without a lock file nobody replaces anything yet. Another process may make it at any moment: what then
    // happens to the file shows in its identity.
    base::UniqueFd lock;
    for (int looks = 0; !lock && m_files.HasLock(); ++looks) {
        if (looks == kLockLooks) {
            return Fail(SQLITE_BUSY, "its lock file is held by another process or cannot be opened");
        }
        lock = m_files.Lock(LOCK_SH, PatienceMs(READ));
    }
    m_identity = m_files.Current();
    if (!m_identity) {
        return kNoStore;
    }
    const int code = Connect();
    if (code != SQLITE_OK) {
        m_connection.reset();
        return code;
    }
    ++m_generation;
    return SQLITE_OK;
}

int KeyDatabase::Connect() {
    if (m_identity->empty) {
        // SQLite would take it for a new database and delete a log that lies beside it.
        return Fail(SQLITE_NOTADB, "file is empty");
    }
    sqlite3* connection = nullptr;
    const int code = sqlite3_open_v2(m_files.Database().c_str(), &connection,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    m_connection.reset(connection);
    if (code != SQLITE_OK) {
        return Fail(code, connection != nullptr ? sqlite3_errmsg(connection) : sqlite3_errstr(code));
    }
    for (const auto step : {&KeyDatabase::Configure, &KeyDatabase::CheckWhole, &KeyDatabase::PrepareAll}) {
        const int result = (this->*step)();
        if (result != SQLITE_OK) {
            Close();
            return result;
        }
    }
    return SQLITE_OK;
}

int KeyDatabase::Configure() {
    sqlite3* const connection = m_connection.get();
    sqlite3_busy_timeout(connection, PatienceMs(READ));
    // A process that only reads leaves the log as it is, also when it is the last to go.
    sqlite3_db_config(connection, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    const char* const durability =
        m_durability == Durability::PowerCut ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=OFF";
    for (const char* sql : {kSettings, durability}) {
        const int code = sqlite3_exec(connection, sql, nullptr, nullptr, nullptr);
        if (code != SQLITE_OK) {
            return Fail(code, sqlite3_errmsg(connection));
        }
    }
    return SQLITE_OK;
}

int KeyDatabase::CheckWhole() {
    const base::StatementPtr check = base::Prepare(m_connection.get(), "PRAGMA quick_check(1)");
    if (check == nullptr) {
        return Fail(sqlite3_errcode(m_connection.get()), sqlite3_errmsg(m_connection.get()));
    }
    base::Run run(check);
    const int code = run.Step();
    if (code != SQLITE_ROW) {
        return Fail(code, sqlite3_errmsg(m_connection.get()));
    }
    const std::string verdict(run.Text(0));
    return verdict == "ok" ? SQLITE_OK : Fail(SQLITE_CORRUPT, verdict);
}

int KeyDatabase::PrepareAll() {
    const std::pair<base::StatementPtr*, const char*> statements[] = {
        {&m_get, kGet}, {&m_set, kSet}, {&m_remove, kRemove}, {&m_end, kEnd}, {&m_changes, kChanges}};
    for (const auto& [statement, sql] : statements) {
        *statement = base::Prepare(m_connection.get(), sql);
        if (*statement == nullptr) {
            const int code = sqlite3_errcode(m_connection.get());
            // A sound database without the table of keys.
            return Fail(code == SQLITE_ERROR ? SQLITE_NOTADB : code, sqlite3_errmsg(m_connection.get()));
        }
    }
    return SQLITE_OK;
}

int KeyDatabase::Create() {
    if (!m_files.MakeFolder()) {
        return Fail(SQLITE_CANTOPEN, std::string("its folder cannot be made: ") + std::strerror(errno));
    }
    const base::UniqueFd lock = m_files.Lock(LOCK_EX, PatienceMs(WRITE));
    if (!lock) {
        return Fail(SQLITE_BUSY, "its lock file is held by another process or cannot be made");
    }
    if (m_files.Current()) {
        return SQLITE_OK;
    }
    if (m_files.HasLog()) {
        // A log without its database may hold values that somebody wants back.
        const int code = SetAside("gone, its log is not");
        if (code != SQLITE_OK) {
            return code;
        }
    }
    return BuildNew();
}

/// Under the exclusive lock. The database gets its name when it is complete: whoever finds it finds a whole
/// one.
int KeyDatabase::BuildNew() {
    if (!m_files.BeginNew()) {
        return Fail(SQLITE_CANTOPEN, std::string("a new one cannot be made: ") + std::strerror(errno));
    }
    sqlite3* raw = nullptr;
    const int opened = sqlite3_open_v2(m_files.NewDatabase().c_str(), &raw,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    base::DatabasePtr connection(raw);
    const int code = opened == SQLITE_OK ? sqlite3_exec(raw, kSchema, nullptr, nullptr, nullptr) : opened;
    if (code != SQLITE_OK) {
        return Fail(code, std::string("a new one cannot be made: ") + sqlite3_errmsg(raw));
    }
    // Closing folds the log into the database.
    connection.reset();
    if (!m_files.CommitNew()) {
        return Fail(SQLITE_CANTOPEN, std::string("a new one cannot be made: ") + std::strerror(errno));
    }
    return SQLITE_OK;
}

/// SQLITE_OK when a sound database stands in place of the damaged one, whoever put it there.
int KeyDatabase::ReplaceDamaged() {
    const std::string reason = m_reason;
    const std::optional<FileIdentity> damaged = m_identity;
    Close();
    const base::UniqueFd lock = m_files.Lock(LOCK_EX, PatienceMs(WRITE));
    if (!lock) {
        return Fail(SQLITE_BUSY, "damaged (" + reason + "), and another process holds its lock file");
    }
    const std::optional<FileIdentity> current = m_files.Current();
    if (current && damaged && !current->SameFile(*damaged)) {
        return SQLITE_OK;
    }
    const int result = SetAside("damaged (" + reason + ")");
    return result == SQLITE_OK ? BuildNew() : result;
}

/// Clears the place for a new one, under the exclusive lock.
int KeyDatabase::SetAside(const std::string& fault) {
    const base::SetAsideResult result = base::SetAside(m_files.Database());
    if (result.error) {
        return Fail(SQLITE_CANTOPEN, fault + ", and cannot be set aside: " + result.error.message());
    }
    PLATFORM_LOG(ERROR, "key store %s is %s: %s%s, a new one is begun", m_files.Database().c_str(),
                 fault.c_str(), result.name.empty() ? "removed" : "set aside as ", result.name.c_str());
    return SQLITE_OK;
}

int KeyDatabase::Fail(int code, const std::string& reason) {
    m_denied = code == SQLITE_CANTOPEN && (errno == EACCES || errno == EPERM);
    m_reason = reason;
    return code;
}

void KeyDatabase::Close() {
    for (base::StatementPtr* statement : {&m_get, &m_set, &m_remove, &m_end, &m_changes}) {
        statement->reset();
    }
    m_connection.reset();
}

/// True when the file that was found last is no longer the one under its name.
bool KeyDatabase::Replaced() const {
    const std::optional<FileIdentity> current = m_files.Current();
    return m_identity && (!current || !current->SameFile(*m_identity));
}

int KeyDatabase::PatienceMs(Access access) const {
    return m_faulty[access] ? kFaultyPatienceMs : kPatienceMs;
}

/// Turns the outcome into success or failure and logs the beginning of a fault.
bool KeyDatabase::Judge(Access access, int code) {
    if (code == SQLITE_DONE || (code == kNoStore && access == READ)) {
        // What can be written can be read; the reverse does not hold.
        m_faulty[READ] = false;
        m_faulty[access] = false;
        return true;
    }
    if (!m_faulty[access]) {
        m_faulty[access] = true;
        PLATFORM_LOG(ERROR, "key store %s cannot be %s: %s", m_files.Database().c_str(),
                     access == READ ? "read" : "written", m_reason.c_str());
    }
    errno = m_denied || (code & 0xff) == SQLITE_READONLY ? EACCES : EIO;
    return false;
}

}  // namespace keystore
