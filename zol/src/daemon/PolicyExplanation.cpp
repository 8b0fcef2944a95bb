#include "PolicyExplanation.h"

#include <cerrno>
#include <optional>
#include <utility>

#include "PolicyRule.h"
#include "PolicyTasks.h"
#include "PolicyWords.h"
#include "VconfString.h"
#include "ZOLMonitorInformation.h"
#include "ZOLMonitorManager.h"
#include "ZOLVconfChecker.h"
#include "vconf.h"

namespace zol {
namespace {

constexpr const char* kWatched = "watched";
constexpr const char* kWaiting = "waiting to be watched";

const char* WordOf(TCVconfChecker::EState state) {
    switch (state) {
        case TCVconfChecker::EState::NO_KEY:
            return "no valid key";
        case TCVconfChecker::EState::UNREAD:
            return "not read yet";
        case TCVconfChecker::EState::WATCHED:
            return kWatched;
        case TCVconfChecker::EState::REPORTED:
            return "reported at the start";
        case TCVconfChecker::EState::WAITING:
            break;
    }
    return kWaiting;
}

/// What a key holds now.
struct Present {
    const char* type = "none";
    std::optional<int> number;
    std::optional<std::string> text;
    std::optional<bool> flag;
};

Present Read(const char* key) {
    Present present;
    int number = 0;
    if (vconf_get_int(key, &number) == 0) {
        present.type = "int";
        present.number = number;
    } else if (errno == ENOENT) {
        return present;
    } else if (errno != EINVAL) {
        present.type = "unreadable";
    } else if (const VconfString text = GetVconfString(key)) {
        present.type = "string";
        present.text = text.get();
    } else if (vconf_get_bool(key, &number) == 0) {
        present.type = "bool";
        present.flag = number != 0;
    }
    return present;
}

/// As after a change: by the type of the key. Null when it holds nothing that is compared.
std::optional<bool> HoldsNow(const ZOLVconfMonitor& item, const Present& present) {
    const std::int32_t condition = CodeOf(kConditionWords, item.condition);
    if (present.text) {
        return Holds(condition, *present.text, item.strValue);
    }
    if (!present.number) {
        return std::nullopt;
    }
    return condition == CONDITION_BETWEEN ? IsBetween(item.greater, *present.number, item.less)
                                          : Holds(condition, *present.number, item.intValue);
}

TSPolicyRule ExplainKey(const TCVconfChecker& checker, std::size_t position, std::uint32_t set) {
    const ZOLVconfMonitor& item = checker.Items()[position];
    const auto number = [](std::size_t index) { return static_cast<std::uint32_t>(index + 1); };
    TSPolicyRule rule{{"kind", std::string("key")},  {"set", set},
                      {"item", number(position)},    {"key", item.key},
                      {"condition", item.condition}, {"type", item.type}};
    if (CodeOf(kValueTypeWords, item.type) == VALUE_TYPE_STRING) {
        rule.emplace_back("strvalue", item.strValue);
    } else if (CodeOf(kConditionWords, item.condition) == CONDITION_BETWEEN) {
        rule.emplace_back("greater", item.greater);
        rule.emplace_back("less", item.less);
    } else {
        rule.emplace_back("intvalue", item.intValue);
    }
    rule.emplace_back("state", std::string(WordOf(checker.StateOf(position))));
    if (const std::size_t first = checker.JudgedBy(position); first != position) {
        rule.emplace_back("judged-by", number(first));
    }
    Present present = Read(item.key.c_str());
    rule.emplace_back("value-type", std::string(present.type));
    if (const std::optional<bool> holds = HoldsNow(item, present)) {
        rule.emplace_back("holds", *holds);
    }
    if (present.number) {
        rule.emplace_back("value", *present.number);
    } else if (present.text) {
        rule.emplace_back("value", std::move(*present.text));
    } else if (present.flag) {
        rule.emplace_back("value", *present.flag);
    }
    return rule;
}

TSPolicyRule ExplainMonitor(const TCMonitorManager::Running& monitor, std::uint32_t set) {
    const TCMonitorInformation& counting = *monitor.rule;
    const bool isRemote = monitor.type == ZOL_BT_PAIR;
    TSPolicyRule rule{{"kind", std::string(isRemote ? "pairing" : "install")},
                      {"set", set},
                      {"item", static_cast<std::uint32_t>(counting.GetIndex() + 1)},
                      {"method", counting.GetMethod()},
                      {"period", counting.GetDuration()},
                      {"repetition", counting.GetPolicyRepetition()},
                      {"count", counting.GetCurrentRepetition()},
                      {"state", std::string(monitor.isMonitoring ? kWatched : kWaiting)}};
    if (isRemote) {
        rule.emplace_back("ignore", monitor.ignoreTime);
    } else {
        rule.emplace_back("id", monitor.id);
    }
    if (counting.GetFirstCalled()) {
        rule.emplace_back("period-ends", counting.GetExpiredTime());
    }
    return rule;
}

}  // namespace

void ExplainRules(const TCPolicyTasks& tasks, std::uint32_t set, const std::string& key,
                  std::vector<TSPolicyRule>& rules) {
    if (const TCVconfChecker* checker = tasks.Checker()) {
        for (std::size_t position = 0; position < checker->Items().size(); ++position) {
            if (key.empty() || checker->Items()[position].key == key) {
                rules.push_back(ExplainKey(*checker, position, set));
            }
        }
    }
    if (tasks.Monitors() != nullptr && key.empty()) {
        for (const TCMonitorManager::Running& monitor : tasks.Monitors()->Monitors()) {
            rules.push_back(ExplainMonitor(monitor, set));
        }
    }
}

}  // namespace zol
