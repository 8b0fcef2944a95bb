#pragma once
/// The maker's KPI event log.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace KPILogFramework {

/// One stored event.
struct TSKpiEvent {
    std::int64_t sequence;     ///< grows by one per event, never reused
    std::int64_t timeSeconds;  ///< wall clock when it was handed over, seconds since 1970 UTC
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
    /// Of events that could not be stored and wait in memory.
    static constexpr std::size_t MAX_WAITING_EVENTS = 256;
    static constexpr std::size_t MAX_WAITING_BYTES = std::size_t{256} * 1024;

    /// The only instance; never freed.
    static CLogger& GetInstance();

    /// Stores one event; on return it survives a power cut. RESULT_SUCCESS, or one of the others. A damaged
    /// database is set aside (the newest one is kept), and a new one begun. What could not be stored waits,
    /// within its limits, and is stored before the next event or, at the latest, at the end of the process;
    /// beyond the limits the oldest are dropped and counted.
    [[nodiscard]] int AddEventLogSync(const std::string& type, const std::string& category,
                                      const std::string& eventId, const std::string& description);

    /// The stored events whose sequence number is greater than `after`, oldest first; all of them when the
    /// log was begun anew and has no number that high. None when there is no store. False when there is one
    /// and it cannot be read. Reading makes and repairs nothing.
    [[nodiscard]] bool ListEvents(std::vector<TSKpiEvent>& events, std::int64_t after = 0);
    /// How many events were dropped since the store was made; 0 when there is none, -1 when it cannot be
    /// read.
    [[nodiscard]] std::int64_t DroppedEvents();

private:
    CLogger();
    ~CLogger();
    class Store;
    void StoreAtEnd();

    std::mutex m_mutex;
    std::unique_ptr<Store> m_store;
};

}  // namespace KPILogFramework
