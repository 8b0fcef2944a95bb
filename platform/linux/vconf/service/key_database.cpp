#include "vconf/service/key_database.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/folders.h"
#include "base/set_aside.h"
#include "platform_clock.h"
#include "platform_log.h"
#include "vconf.h"
#include "vconf/service/hardened_sqlite.h"
#include "vconf/service/old_store.h"

namespace keystore {
namespace {

constexpr std::uint64_t kLongestOperationNs = 5000000000;
// Changes of a store are numbered from a random place below the first number on, which no store outlives: the
// numbers of one that was set aside are not met again.
constexpr std::int64_t kNumbersBegin = std::int64_t{1} << 60;
constexpr std::int64_t kLastNumber = std::int64_t{1} << 62;
// So many removed keys keep their rows for clients that were away meanwhile.
constexpr std::int64_t kKeptRemovals = 1024;

// What is written for a key is a page. A store that was made with longer ones keeps them.
constexpr const char* kNewStore =
    "PRAGMA page_size=1024; PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; BEGIN";
// The write-ahead log is folded into the database at this size and cut back to it.
constexpr std::int64_t kLogBytes = std::int64_t{1024} * 1024;
constexpr std::int64_t kMaxBytes = 64 * kLogBytes;  // all accounts together

// A removed key keeps its row without a value, so that clients that were away learn of its removal.
constexpr const char* kSchema =
    "CREATE TABLE keys(name TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, value,"
    " change INTEGER NOT NULL, owner INTEGER NOT NULL) WITHOUT ROWID";

constexpr const char* kGet = "SELECT type, value, change, owner FROM keys WHERE name = ?1";
constexpr const char* kNext = "SELECT name FROM keys WHERE name > ?1 AND type <> 0 ORDER BY name LIMIT 1";
constexpr const char* kSet =
    "INSERT OR REPLACE INTO keys(name, type, value, change, owner) VALUES(?1, ?2, ?3, ?4, ?5)";
constexpr const char* kAll = "SELECT type, value, change, owner, name FROM keys";
constexpr const char* kForget =
    "DELETE FROM keys WHERE type = 0 AND change <= (SELECT change FROM keys WHERE type = 0 "
    "ORDER BY change DESC LIMIT 1 OFFSET 1024)";

bool IsDamage(int code) {
    const int primary = code & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

Row ReadRow(const base::Run& run) {
    Row row;
    row.value.type = static_cast<int>(run.Number(0));
    if (row.value.type == VCONF_TYPE_STRING) {
        row.value.text = run.Text(1);
    } else if (row.value.type == VCONF_TYPE_INT || row.value.type == VCONF_TYPE_BOOL) {
        row.value.number = static_cast<int>(run.Number(1));
    } else {
        row.value.type = VCONF_TYPE_NONE;
    }
    row.change = run.Number(2);
    row.owner = static_cast<uid_t>(run.Number(3));
    return row;
}

int WriteRow(const base::StatementPtr& statement, std::string_view key, const Row& row) {
    base::Run run(statement);
    run.Bind(1, key);
    run.Bind(2, static_cast<std::int64_t>(row.value.type));
    if (row.value.type == VCONF_TYPE_STRING) {
        run.Bind(3, std::string_view(row.value.text));
    } else if (row.value.type != VCONF_TYPE_NONE) {
        run.Bind(3, static_cast<std::int64_t>(row.value.number));
    }
    run.Bind(4, row.change);
    run.Bind(5, static_cast<std::int64_t>(row.owner));
    return run.Step();
}

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

std::int64_t FirstNumber() {
    std::uint64_t random = 0;
    if (getrandom(&random, sizeof(random), 0) != sizeof(random)) {
        random = platform_clock_steady_ns();
    }
    return static_cast<std::int64_t>(random % kNumbersBegin) + 1;
}

}  // namespace

KeyDatabase::KeyDatabase(const std::string& folder, std::string oldFolder, Durability durability)
    : m_path(folder + "/vconf.db"), m_oldFolder(std::move(oldFolder)), m_durability(durability) {}

bool KeyDatabase::Get(std::string_view key, Row* out) {
    return Perform(READ, [&] {
        *out = Row();
        base::Run run(m_get);
        run.Bind(1, key);
        const int code = run.Step();
        if (code != SQLITE_ROW) {
            return code;
        }
        *out = ReadRow(run);
        return SQLITE_DONE;
    });
}

bool KeyDatabase::Next(std::string_view key, std::string* next) {
    next->clear();
    return Perform(READ, [&] {
        base::Run run(m_next);
        run.Bind(1, key);
        const int code = run.Step();
        if (code != SQLITE_ROW) {
            return code;
        }
        *next = run.Text(0);
        return SQLITE_DONE;
    });
}

bool KeyDatabase::Set(std::string_view key, const Row& old, Row* row) {
    row->change = m_lastChange + 1;
    const bool stored = Perform(WRITE, [&] { return WriteRow(m_set, key, *row); });
    if (!stored) {
        return false;
    }
    m_lastChange = row->change;
    Account(old.owner, key, old.value, -1);
    Account(row->owner, key, row->value, 1);
    m_removals += row->value.type == VCONF_TYPE_NONE ? 1 : 0;
    if (m_removals > 2 * kKeptRemovals && !Perform(WRITE, [&] { return ForgetRemovals(); })) {
        m_removals = 0;  // it is logged, and there is time until the next attempt
    }
    return true;
}

Usage KeyDatabase::UsageOf(uid_t owner) {
    if (m_connection == nullptr && Exists(m_path)) {
        static_cast<void>(Perform(READ, [] { return SQLITE_DONE; }));  // to count; a failure is logged
    }
    const auto found = m_usage.find(owner);
    return found != m_usage.end() ? found->second : Usage();
}

/// Runs `operation`, which answers with SQLITE_DONE or an error code, on the open database; when that proves
/// to be damaged, on the new one.
template <typename Operation>
bool KeyDatabase::Perform(Access access, Operation operation) {
    int code = SQLITE_OK;
    for (int attempt = 0; attempt < 2; ++attempt) {
        m_deadline = platform_clock_steady_ns() + kLongestOperationNs;
        code = Open();
        if (code == SQLITE_OK) {
            code = operation();
            if (code != SQLITE_DONE) {
                m_reason = sqlite3_errmsg(m_connection.get());
            }
        }
        if (!IsDamage(code)) {
            break;
        }
        Close();
        const int aside = SetAside("damaged (" + m_reason + ")");
        if (aside != SQLITE_OK) {
            code = aside;
            break;
        }
    }
    return Judge(access, code);
}

int KeyDatabase::Open() {
    if (m_connection != nullptr) {
        return SQLITE_OK;
    }
    if (!Exists(m_path)) {
        int code = SQLITE_OK;
        if (Exists(m_path + "-wal")) {
            // A log without its database may hold values that somebody wants back.
            code = SetAside("gone, its log is not");
        }
        code = code == SQLITE_OK ? Make() : code;
        if (code != SQLITE_OK) {
            return code;
        }
    }
    m_deadline = platform_clock_steady_ns() + kLongestOperationNs;
    const int code = Connect();
    if (code != SQLITE_OK) {
        Close();
    }
    return code;
}

/// The database gets its name when it is complete: a power cut leaves none or a whole one.
int KeyDatabase::Make() {
    const std::string path = m_path + ".new";
    unlink(path.c_str());
    base::UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    std::string reason = std::strerror(errno);
    base::DatabasePtr made;
    if (file) {
        made = OpenHardened(path, SQLITE_OPEN_READWRITE, &m_deadline, &reason);
    }
    int code = made != nullptr ? Execute(made, kNewStore) : SQLITE_CANTOPEN;
    code = code == SQLITE_OK ? Execute(made, kSchema) : code;
    // What was set aside was newer than what an earlier version has left.
    bool isTaken = false;
    if (code == SQLITE_OK && !Exists(m_path + ".damaged")) {
        const base::StatementPtr set = base::Prepare(made.get(), kSet);
        std::int64_t change = FirstNumber();
        isTaken =
            TakeOverOldStore(m_oldFolder, m_path + ".taken", [&](const std::string& key, const Value& value) {
                return WriteRow(set, key, {value, ++change, 0}) == SQLITE_DONE;
            });
    }
    code = code == SQLITE_OK ? Execute(made, "COMMIT") : code;
    if (code != SQLITE_OK) {
        return Fail(code,
                    "a new one cannot be made: " + (made != nullptr ? sqlite3_errmsg(made.get()) : reason));
    }
    made.reset();
    if (fsync(file.Get()) != 0 || rename(path.c_str(), m_path.c_str()) != 0 || base::SyncFolderOf(m_path)) {
        return Fail(SQLITE_CANTOPEN, std::string("a new one cannot be made: ") + std::strerror(errno));
    }
    if (isTaken) {
        ForgetOldStore(m_oldFolder);
    }
    return SQLITE_OK;
}

int KeyDatabase::Connect() {
    struct stat status {};
    if (stat(m_path.c_str(), &status) == 0 && status.st_size == 0) {
        // SQLite would take it for a new database and delete a log that lies beside it.
        return Fail(SQLITE_NOTADB, "file is empty");
    }
    m_connection = OpenHardened(m_path, SQLITE_OPEN_READWRITE, &m_deadline, &m_reason);
    if (m_connection == nullptr) {
        return SQLITE_CANTOPEN;
    }
    for (const auto step :
         {&KeyDatabase::Configure, &KeyDatabase::CheckWhole, &KeyDatabase::PrepareAll, &KeyDatabase::Count}) {
        const int code = (this->*step)();
        if (code != SQLITE_OK) {
            return code;
        }
    }
    return SQLITE_OK;
}

int KeyDatabase::Configure() {
    int code = SQLITE_ERROR;
    std::int64_t pageBytes = 0;
    {
        const base::StatementPtr size = base::Prepare(m_connection.get(), "PRAGMA page_size");
        base::Run run(size);
        code = run.Step();
        pageBytes = code == SQLITE_ROW ? run.Number(0) : 0;
    }
    if (pageBytes > 0) {
        const std::string settings =
            std::string("PRAGMA journal_mode=WAL; PRAGMA cache_size=-256; PRAGMA synchronous=") +
            (m_durability == Durability::PowerCut ? "FULL" : "OFF") +
            "; PRAGMA wal_autocheckpoint=" + std::to_string(kLogBytes / pageBytes) +
            "; PRAGMA journal_size_limit=" + std::to_string(kLogBytes) +
            "; PRAGMA max_page_count=" + std::to_string(kMaxBytes / pageBytes);
        code = Execute(m_connection, settings.c_str());
    }
    return code == SQLITE_OK ? SQLITE_OK : Fail(code, sqlite3_errmsg(m_connection.get()));
}

int KeyDatabase::CheckWhole() {
    const base::StatementPtr check = base::Prepare(m_connection.get(), "PRAGMA quick_check(1)");
    base::Run run(check);
    const int code = run.Step();
    if (code != SQLITE_ROW) {
        return Fail(code, sqlite3_errmsg(m_connection.get()));
    }
    const std::string verdict(run.Text(0));
    if (verdict != "ok") {
        return Fail(SQLITE_CORRUPT, verdict);
    }
    return SchemaOf(m_connection.get()) == std::string(kSchema) + "\n"
               ? SQLITE_OK
               : Fail(SQLITE_NOTADB, "no store of keys");
}

int KeyDatabase::PrepareAll() {
    for (const auto& [statement, sql] :
         {std::pair(&m_get, kGet), std::pair(&m_next, kNext), std::pair(&m_set, kSet)}) {
        *statement = base::Prepare(m_connection.get(), sql);
        if (*statement == nullptr) {
            return Fail(sqlite3_errcode(m_connection.get()), sqlite3_errmsg(m_connection.get()));
        }
    }
    return SQLITE_OK;
}

/// Learns who has stored how much, and where the numbers of the changes go on.
int KeyDatabase::Count() {
    m_usage.clear();
    m_removals = 0;
    m_lastChange = 0;
    const base::StatementPtr all = base::Prepare(m_connection.get(), kAll);
    base::Run run(all);
    int code = run.Step();
    for (; code == SQLITE_ROW; code = run.Step()) {
        const Row row = ReadRow(run);
        if (row.change < 1 || row.change > kLastNumber) {
            return Fail(SQLITE_CORRUPT, "a change has an impossible number");
        }
        Account(row.owner, run.Text(4), row.value, 1);
        m_removals += row.value.type == VCONF_TYPE_NONE ? 1 : 0;
        m_lastChange = std::max(m_lastChange, row.change);
    }
    if (m_lastChange == 0) {
        m_lastChange = FirstNumber();
    }
    return code == SQLITE_DONE ? SQLITE_OK : Fail(code, sqlite3_errmsg(m_connection.get()));
}

int KeyDatabase::ForgetRemovals() {
    const base::StatementPtr forget = base::Prepare(m_connection.get(), kForget);
    base::Run run(forget);
    const int code = run.Step();
    m_removals -= sqlite3_changes(m_connection.get());
    return code;
}

int KeyDatabase::SetAside(const std::string& fault) {
    const base::SetAsideResult result = base::SetAside(m_path);
    if (result.error) {
        return Fail(SQLITE_CANTOPEN, fault + ", and cannot be set aside: " + result.error.message());
    }
    ++m_replacements;
    PLATFORM_LOG(ERROR, "key store %s is %s: %s%s, a new one is begun", m_path.c_str(), fault.c_str(),
                 result.name.empty() ? "removed" : "set aside as ", result.name.c_str());
    return SQLITE_OK;
}

int KeyDatabase::Fail(int code, const std::string& reason) {
    m_reason = reason;
    return code;
}

void KeyDatabase::Close() {
    m_get.reset();
    m_next.reset();
    m_set.reset();
    m_connection.reset();
}

/// Adds what a key takes to its owner's usage, or takes it off.
void KeyDatabase::Account(uid_t owner, std::string_view key, const Value& value, int sign) {
    if (value.type != VCONF_TYPE_NONE) {
        Usage& usage = m_usage[owner];
        usage.keys += sign;
        usage.bytes += sign * static_cast<std::int64_t>(key.size() + value.text.size());
    }
}

/// Turns the outcome into success or failure and logs the beginning of a fault.
bool KeyDatabase::Judge(Access access, int code) {
    if (code == SQLITE_DONE) {
        // What can be written can be read; the reverse does not hold.
        m_isFaulty[READ] = false;
        m_isFaulty[access] = false;
        return true;
    }
    if (!m_isFaulty[access]) {
        m_isFaulty[access] = true;
        PLATFORM_LOG(ERROR, "key store %s cannot be %s: %s", m_path.c_str(),
                     access == READ ? "read" : "written", m_reason.c_str());
    }
    return false;
}

}  // namespace keystore
