#pragma once
/// The debug-data switches: which kinds of debug data the platform collects along with a report.
#include <boost/thread/recursive_mutex.hpp>
#include <cstdint>
#include <string>
#include <vector>

namespace zol {

/// One switch. No policy document carries switches and the parser knows none: whoever holds them builds the
/// list.
struct ZOLDebugData {
    std::string name;  ///< "coredump", "task_info", "cv", "dlog" or "streamline"
    std::int32_t value = 0;
};

/// Process-wide. Any thread.
class ZOLDataManager {
public:
    /// vconf int key that takes the value of "coredump".
    static constexpr const char* KEY_COREDUMP = "db/private/corvel/corvel_policy_info";

    /// The only instance, made on first use and never freed.
    static ZOLDataManager* Instance();

    /// Applies the switches in list order. Only "coredump" has an effect; the other four names are accepted
    /// and reserved. An unknown name, or a key that cannot be written, is logged and the rest goes on.
    /// The list is the callee's own, so that a caller may change its own meanwhile on another thread.
    void SetAllDebugData(std::vector<ZOLDebugData> items);

private:
    ZOLDataManager() = default;

    static ZOLDataManager* m_pInstance;
    /// Recursive: a caller that holds it may call in.
    static boost::recursive_mutex m_IDM_mutex;
};

}  // namespace zol
