#pragma once
/// The maker's KPI event log.
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace KPILogFramework {

/// One stored event.
struct TSKpiEvent {
    std::int64_t sequence;     ///< grows by one per event, never reused
    std::int64_t timeSeconds;  ///< wall clock when it was stored, seconds since 1970 UTC
    std::string type;
    std::string category;
    std::string eventId;
    std::string description;
};

/// The event log of the device, a bounded SQLite database at ZOL_PATH_KPI_DB: when it is full the oldest
/// events are dropped and counted. Any thread, any number of processes.
class CLogger {
public:
    static constexpr int RESULT_SUCCESS = 1;
    static constexpr int RESULT_NO_STORE = -1;      ///< the database cannot be opened
    static constexpr int RESULT_WRITE_FAILED = -2;  ///< full disk, locked for too long, damaged
    static constexpr int MAX_EVENTS = 10000;
    /// Of flash, the newest event always being kept: a watched text may be long, and the flash is small.
    static constexpr std::int64_t MAX_BYTES = std::int64_t{16} * 1024 * 1024;

    /// The only instance; never freed.
    static CLogger& GetInstance();

    /// Stores one event; on return it survives a power cut. RESULT_SUCCESS, or one of the others. A damaged
    /// database is set aside (the newest one is kept), and a new one begun.
    [[nodiscard]] int AddEventLogSync(const std::string& type, const std::string& category,
                                      const std::string& eventId, const std::string& description);

    /// The stored events, oldest first; none when there is no store. False when there is one and it cannot be
    /// read. Reading makes and repairs nothing.
    [[nodiscard]] bool ListEvents(std::vector<TSKpiEvent>& events);
    /// How many events were dropped since the store was made; 0 when there is none, -1 when it cannot be
    /// read.
    [[nodiscard]] std::int64_t DroppedEvents();

private:
    CLogger();
    ~CLogger();
    class Store;
    std::mutex m_mutex;
    std::unique_ptr<Store> m_store;
};

}  // namespace KPILogFramework
