#include "ZOLDataManager.h"

#include <algorithm>
#include <iterator>
#include <mutex>

#include "Log.h"
#include "vconf.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::ZOLDataManager";

struct Switch {
    const char* name;
    const char* key;  ///< vconf int key that takes the value; null: reserved
};

constexpr Switch kSwitches[] = {
    {"coredump", ZOLDataManager::KEY_COREDUMP},
    {"task_info", nullptr},
    {"cv", nullptr},
    {"dlog", nullptr},
    {"streamline", nullptr},
};

void Apply(const ZOLDebugData& item) {
    const Switch* known = std::find_if(std::begin(kSwitches), std::end(kSwitches),
                                       [&item](const Switch& entry) { return item.name == entry.name; });
    if (known == std::end(kSwitches)) {
        ZOL_LOG(LOG_ERROR, "No matching debug data!");
    } else if (known->key != nullptr && vconf_set_int(known->key, item.value) == -1) {
        ZOL_LOG(LOG_ERROR, "Unable to save Coredump config!");
    }
}

}  // namespace

ZOLDataManager* ZOLDataManager::m_pInstance = nullptr;
boost::recursive_mutex ZOLDataManager::m_IDM_mutex;

ZOLDataManager* ZOLDataManager::Instance() {
    const std::lock_guard<boost::recursive_mutex> lock(m_IDM_mutex);
    if (m_pInstance == nullptr) {
        m_pInstance = new ZOLDataManager;
    }
    return m_pInstance;
}

// By value is the interface that other components build against.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void ZOLDataManager::SetAllDebugData(std::vector<ZOLDebugData> items) {
    const std::lock_guard<boost::recursive_mutex> lock(m_IDM_mutex);
    for (const ZOLDebugData& item : items) {
        Apply(item);
    }
}

}  // namespace zol
