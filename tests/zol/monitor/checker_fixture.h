#pragma once
/// A checker of keys on a notify manager whose reports can be read.
#include <memory>
#include <string>
#include <vector>

#include "ZOLVconfChecker.h"
#include "fake_vconf.h"
#include "kpi_events.h"
#include "monitor_fixture.h"

using Items = std::vector<zol::ZOLVconfMonitor>;
using Reports = std::vector<std::string>;

constexpr const char* kWatched = "db/k";

inline zol::ZOLVconfMonitor Item(const char* type, const char* condition, const std::string& key) {
    zol::ZOLVconfMonitor item;
    item.key = key;
    item.type = type;
    item.condition = condition;
    return item;
}

inline zol::ZOLVconfMonitor IntItem(const char* condition, int value, const std::string& key = kWatched) {
    zol::ZOLVconfMonitor item = Item("INT", condition, key);
    item.intValue = value;
    return item;
}

inline zol::ZOLVconfMonitor BetweenItem(int greater, int less) {
    zol::ZOLVconfMonitor item = IntItem("BETWEEN", -1);
    item.greater = greater;
    item.less = less;
    return item;
}

inline zol::ZOLVconfMonitor StringItem(const char* condition, const char* text,
                                       const std::string& key = kWatched) {
    zol::ZOLVconfMonitor item = Item("STRING", condition, key);
    item.strValue = text;
    return item;
}

class VconfChecker : public MonitorFixture {
protected:
    /// The policy's items are checked once when this returns.
    void Watch(const Items& items) { Watch(items, &m_notify); }
    void Watch(const Items& items, TCNotifyManager* notify) {
        m_checker = std::make_unique<zol::TCVconfChecker>(notify, items);
        ASSERT_TRUE(m_checker->Create());
        m_checker->CheckNow(items);
    }

    /// Whether an item holds at start for this value of its key: it is not watched then.
    bool HoldsAtStart(const zol::ZOLVconfMonitor& item, int value) {
        fakes::vconf::SetInt(item.key, value);
        return HoldsAtStart(item);
    }
    bool HoldsAtStart(const zol::ZOLVconfMonitor& item, const char* value) {
        fakes::vconf::SetString(item.key, value);
        return HoldsAtStart(item);
    }
    bool HoldsAtStart(const zol::ZOLVconfMonitor& item) {
        Watch({item});
        const bool isWatched = fakes::vconf::Registrations(item.key) > 0;
        m_checker.reset();
        return !isWatched;
    }

    /// Everything that was reported so far, as "key=value".
    Reports Reported() {
        m_notify.VconfEvents();
        Reports reports;
        for (const std::string& description : SentKpiDescriptions()) {
            reports.push_back(Between(description, "key=", ";") + "=" + Between(description, "value=", ";"));
        }
        return reports;
    }
    static std::string Between(const std::string& text, const std::string& before, const std::string& after) {
        const std::size_t begin = text.find(before) + before.size();
        return text.substr(begin, text.find(after, begin) - begin);
    }
    std::unique_ptr<zol::TCVconfChecker> m_checker;
};
