#include "vconf/service/hardened_sqlite.h"

#include <initializer_list>
#include <utility>

#include "platform_clock.h"

namespace keystore {
namespace {

constexpr int kStepsBetweenLooks = 10000;
constexpr int kMaxRowBytes = 2 * 1024 * 1024;

/// Not zero ends the operation.
int IsLate(void* deadline) {
    return platform_clock_steady_ns() > *static_cast<const std::uint64_t*>(deadline) ? 1 : 0;
}

}  // namespace

base::DatabasePtr OpenHardened(const std::string& path, int flags, const std::uint64_t* deadline,
                               std::string* reason) {
    sqlite3* raw = nullptr;
    const int code =
        sqlite3_open_v2(path.c_str(), &raw, flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW, nullptr);
    base::DatabasePtr connection(raw);
    bool hardened = code == SQLITE_OK;
    if (hardened) {
        for (const auto& [option, value] :
             {std::pair(SQLITE_DBCONFIG_DEFENSIVE, 1), std::pair(SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1),
              std::pair(SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0), std::pair(SQLITE_DBCONFIG_ENABLE_TRIGGER, 0),
              std::pair(SQLITE_DBCONFIG_ENABLE_VIEW, 0)}) {
            hardened = hardened && sqlite3_db_config(raw, option, value, nullptr) == SQLITE_OK;
        }
        sqlite3_limit(raw, SQLITE_LIMIT_LENGTH, kMaxRowBytes);
        sqlite3_limit(raw, SQLITE_LIMIT_ATTACHED, 0);
        sqlite3_progress_handler(raw, kStepsBetweenLooks, &IsLate, const_cast<std::uint64_t*>(deadline));
        // With an exclusive lock the index of the log lies in this process's memory, not in a shared file.
        hardened = hardened && Execute(connection,
                                       "PRAGMA locking_mode=EXCLUSIVE; PRAGMA mmap_size=0; "
                                       "PRAGMA cell_size_check=ON") == SQLITE_OK;
    }
    if (!hardened) {
        *reason = raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(code);
        connection.reset();
    }
    return connection;
}

std::string SchemaOf(sqlite3* database) {
    std::string schema;
    const base::StatementPtr list = base::Prepare(database, "SELECT sql FROM sqlite_schema ORDER BY rowid");
    base::Run run(list);
    while (list != nullptr && run.Step() == SQLITE_ROW) {
        schema.append(run.Text(0)).append("\n");
    }
    return schema;
}

int Execute(const base::DatabasePtr& database, const char* sql) {
    return sqlite3_exec(database.get(), sql, nullptr, nullptr, nullptr);
}

}  // namespace keystore
