#pragma once
/// The database behind the KPI event log.
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "KPILogFramework.h"
#include "base/sqlite_handles.h"

namespace KPILogFramework {

/// One connection, opened when it is first needed and again when the file was replaced. Not thread-safe.
class CLogger::Store {
public:
    /// Appends one event and drops what is over the limit, all or nothing. @return a RESULT_ code.
    [[nodiscard]] int Add(const std::string& type, const std::string& category, const std::string& eventId,
                          const std::string& description);
    [[nodiscard]] bool List(std::vector<TSKpiEvent>& events);
    std::int64_t Dropped();

private:
    enum class EPresence { OPEN, ABSENT, FAILED };

    [[nodiscard]] EPresence OpenExisting();
    /// False while another process has made the file and not yet what is in it.
    bool HoldsTables();
    [[nodiscard]] int OpenForWriting();
    [[nodiscard]] int Connect(const std::string& path, int flags);
    [[nodiscard]] int Prepare();
    [[nodiscard]] int CheckPages();
    [[nodiscard]] int Insert(const std::string& type, const std::string& category, const std::string& eventId,
                             const std::string& description);
    [[nodiscard]] int DropOldest();
    [[nodiscard]] int DropUpTo(const std::string& last);
    /// Of the first column of the first row.
    [[nodiscard]] std::optional<std::int64_t> Number(const char* sql);
    [[nodiscard]] int Execute(const char* sql);
    [[nodiscard]] bool SetAside(const std::string& path);
    void Close();

    base::DatabasePtr m_database;
    ino_t m_inode = 0;  // of the file behind the connection
    bool m_writable = false;
};

}  // namespace KPILogFramework
