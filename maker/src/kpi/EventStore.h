#pragma once
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "KPILogFramework.h"
#include "base/sqlite_handles.h"

namespace KPILogFramework {

/// One connection, opened when it is first needed and again when the file was replaced. Not thread-safe.
class CLogger::Store {
public:
    /// Lets one event wait to be stored.
    void Enqueue(const std::string& type, const std::string& category, const std::string& eventId,
                 const std::string& description);
    /// Appends the events that wait and drops what is over the limit, all or nothing. @return a RESULT_ code;
    /// after a failure they go on waiting, but for the oldest ones beyond the limits. Throws nothing.
    [[nodiscard]] int StoreWaiting();
    std::size_t Waiting() const { return m_waiting.size(); }
    [[nodiscard]] bool List(std::vector<TSKpiEvent>& events, std::int64_t after);
    std::int64_t Dropped();

private:
    /// What storing an event takes, prepared once for a connection that writes.
    enum EStatement { BEGIN, INSERT, USED_BYTES, OLDEST, DROP, COUNT_DROPPED, COMMIT, STATEMENTS };
    static const std::array<const char*, STATEMENTS> kStatements;

    enum class EPresence { OPEN, ABSENT, FAILED };

    [[nodiscard]] EPresence OpenExisting();
    /// False while another process has made the file and not yet what is in it.
    bool HoldsTables();
    [[nodiscard]] int OpenForWriting();
    [[nodiscard]] int Connect(const std::string& path, int flags);
    [[nodiscard]] int Prepare();
    [[nodiscard]] int CheckPages();
    [[nodiscard]] int TryToStoreWaiting();
    [[nodiscard]] int Append();
    [[nodiscard]] int Insert(const TSKpiEvent& event);
    void BoundWaiting();
    [[nodiscard]] int DropOldest();
    /// Deletes the events up to a sequence number, but never the newest one.
    [[nodiscard]] int DropUpTo(std::int64_t last);
    [[nodiscard]] int CountDropped(std::int64_t count);
    /// What a statement without parameters ends with.
    [[nodiscard]] int Run(EStatement statement);
    /// Of the first column of the first row. An error code, or SQLITE_OK.
    [[nodiscard]] int Number(const base::StatementPtr& statement, std::int64_t* number);
    [[nodiscard]] int Number(const char* sql, std::int64_t* number);
    [[nodiscard]] int Execute(const char* sql);
    [[nodiscard]] bool SetAside(const std::string& path);
    void Close();

    base::DatabasePtr m_database;
    std::array<base::StatementPtr, STATEMENTS> m_statements;  // while it is writable
    ino_t m_inode = 0;                                        // of the file behind the connection
    bool m_writable = false;

    std::deque<TSKpiEvent> m_waiting;  // without sequence numbers
    std::int64_t m_lost = 0;           // dropped before they were stored, not counted in the database yet
};

}  // namespace KPILogFramework
