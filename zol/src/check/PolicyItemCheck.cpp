#include "PolicyItemCheck.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <string_view>

#include "PolicyAttributes.h"
#include "PolicyFaultText.h"
#include "PolicyTimes.h"
#include "PolicyValidation.h"
#include "PolicyWords.h"
#include "vconf.h"

namespace zol {
namespace {

constexpr std::int32_t kNotGiven = -1;
constexpr std::size_t kMaxIdBytes = 127;  ///< what the install service is asked for

constexpr std::string_view kHandOverKey = "db/zol/send_zol_files_path";
/// What else the daemon writes.
constexpr std::array<std::string_view, 8> kOwnKeys{
    {"db/zol/corvel_policy", "db/private/tvs-cv/power_on_prepared", "db/private/tvs-cv/policy_version",
     "db/private/zol/clock_diff", "db/private/zol/policy_time", "db/private/zol/policy_first_boot_time",
     "db/private/corvel/corvel_policy_info", "db/window_system/system_state"}};

std::string Line(unsigned line) {
    return "line " + std::to_string(line);
}

const char* TypeName(int type) {
    switch (type) {
        case VCONF_TYPE_INT:
            return "an integer";
        case VCONF_TYPE_STRING:
            return "a text";
        default:
            return "a boolean, which is never compared";
    }
}

}  // namespace

void TCPolicyItemCheck::CheckRule(const TSPlace& place, const ZOLVconfMonitor& item,
                                  const TCAttributes& values) {
    const EPolicyFault fault = CheckVconfPolicy(item);
    if (fault != EPolicyFault::NONE) {
        TSExplanation why = Explain(fault, item, values);
        m_findings.AddError(EPolicyFinding::DROPPED, place, "dropped: " + why.text, std::move(why.hint));
        return;
    }
    if (item.key.empty()) {
        m_findings.AddError(EPolicyFinding::NO_KEY, place, "key is missing: nothing can be watched");
        return;
    }
    ++m_watched;
    if (CodeOf(kValueTypeWords, item.type) == VALUE_TYPE_INT) {
        m_CheckBounds(place, item, values);
        m_CheckRange(place, item);
    }
    m_CheckKey(place, item);
}

void TCPolicyItemCheck::m_CheckBounds(const TSPlace& place, const ZOLVconfMonitor& item,
                                      const TCAttributes& values) {
    const std::int32_t condition = CodeOf(kConditionWords, item.condition);
    std::string value;
    if (condition != CONDITION_BETWEEN) {
        const char* bound = condition == CONDITION_GREATER ? "greater" : "less";
        const bool isOrder = condition == CONDITION_GREATER || condition == CONDITION_LESS;
        if (isOrder && values.GetValue(bound, value)) {
            m_findings.AddWarning(
                EPolicyFinding::BOUND_IGNORED, place,
                std::string(bound) + " is ignored: " + item.condition + " compares with intvalue");
        }
        return;
    }
    for (const auto& [name, bound] : {std::pair("greater", item.greater), std::pair("less", item.less)}) {
        if (bound == kNotGiven) {
            std::int32_t written = 0;
            values.GetValue(name, written);
            const std::string what =
                written == kNotGiven ? " is -1, which stands for \"not given\", " : " is not given ";
            m_findings.AddWarning(EPolicyFinding::MINUS_ONE, place, name + what + "and compared as -1");
        }
    }
}

void TCPolicyItemCheck::m_CheckRange(const TSPlace& place, const ZOLVconfMonitor& item) {
    using Limits = std::numeric_limits<std::int32_t>;
    std::string range;
    switch (CodeOf(kConditionWords, item.condition)) {
        case CONDITION_BETWEEN:
            if (std::int64_t{item.less} - item.greater < 2) {
                range = "lies between " + std::to_string(item.greater) + " and " + std::to_string(item.less);
            }
            break;
        case CONDITION_GREATER:
            if (item.intValue == Limits::max()) {
                range = "is greater than " + std::to_string(item.intValue);
            }
            break;
        case CONDITION_LESS:
            if (item.intValue == Limits::min()) {
                range = "is less than " + std::to_string(item.intValue);
            }
            break;
        default:
            break;
    }
    if (!range.empty()) {
        m_findings.AddWarning(EPolicyFinding::EMPTY_RANGE, place, "never a hit: no integer " + range,
                              item.greater > item.less && item.less != kNotGiven &&
                                      CodeOf(kConditionWords, item.condition) == CONDITION_BETWEEN
                                  ? "greater is the lower bound, less the upper one"
                                  : "");
    }
}

void TCPolicyItemCheck::m_CheckKey(const TSPlace& place, const ZOLVconfMonitor& item) {
    if (item.key == kHandOverKey) {
        m_findings.AddWarning(
            EPolicyFinding::OWN_KEY, place,
            "the daemon writes this key with every report, so that a hit brings on the next one: it loops");
    } else if (std::find(kOwnKeys.begin(), kOwnKeys.end(), item.key) != kOwnKeys.end()) {
        m_findings.AddWarning(EPolicyFinding::OWN_KEY, place, "the daemon itself writes this key");
    }
    const auto [first, isNew] = m_keys.emplace(item.key, place.line);
    if (!isNew) {
        m_findings.AddWarning(EPolicyFinding::REPEATED_KEY, place,
                              "a change of key " + Quoted(item.key) + " is judged by the item in " +
                                  Line(first->second) +
                                  " alone, by this one only when the policy is applied");
    }
    m_CheckKeyType(place, item);
}

void TCPolicyItemCheck::m_CheckKeyType(const TSPlace& place, const ZOLVconfMonitor& item) {
    if (!m_typeOfKey) {
        return;
    }
    const int type = m_typeOfKey(item.key);
    const int expected =
        CodeOf(kValueTypeWords, item.type) == VALUE_TYPE_STRING ? VCONF_TYPE_STRING : VCONF_TYPE_INT;
    if (type != VCONF_TYPE_NONE && type != expected) {
        m_findings.AddWarning(EPolicyFinding::KEY_TYPE, place,
                              "type is " + item.type + ", but key " + Quoted(item.key) +
                                  " in this machine's store is " + TypeName(type));
    }
}

void TCPolicyItemCheck::CheckMonitor(const TSPlace& place, const ZOLPolicyMonitor& item,
                                     const TCAttributes& values) {
    const EPolicyFault fault = CheckMonitorPolicy(item);
    if (fault != EPolicyFault::NONE) {
        TSExplanation why = Explain(fault, item, values);
        m_findings.AddError(EPolicyFinding::DROPPED, place, "dropped: " + why.text, std::move(why.hint));
        return;
    }
    if (item.type == APP_LAUNCH) {
        m_findings.AddWarning(EPolicyFinding::NOT_MONITORED, place,
                              "kind 2 is accepted, but nothing monitors application launches");
        return;
    }
    const bool isPairing = item.type == ZOL_BT_PAIR;
    if (isPairing ? !m_IsFirstMonitor(place, {}, "kind 3", m_pairing)
                  : !m_IsFirstMonitor(place, item.id, "this id", m_installs)) {
        return;
    }
    ++m_watched;
    if (!isPairing && item.id.size() > kMaxIdBytes) {
        m_findings.AddWarning(EPolicyFinding::LONG_ID, place,
                              "only the first " + std::to_string(kMaxIdBytes) + " bytes of id are used");
    }
    if (item.method != METHOD_BT_LAST_CONNECTED) {
        m_CheckCounting(place, item, values);
    }
}

bool TCPolicyItemCheck::m_IsFirstMonitor(const TSPlace& place, const std::string& name, const char* what,
                                         LineOf& first) {
    const auto [entry, isNew] = first.emplace(name, place.line);
    if (!isNew) {
        m_findings.AddWarning(
            EPolicyFinding::REPEATED_MONITOR, place,
            std::string("ignored: ") + what + " is monitored by the item in " + Line(entry->second));
    }
    return isNew;
}

void TCPolicyItemCheck::m_CheckCounting(const TSPlace& place, const ZOLPolicyMonitor& item,
                                        const TCAttributes& values) {
    // Two events that are counted lie more than the ignore time apart.
    const std::int64_t gap = item.type == ZOL_BT_PAIR ? std::int64_t{m_CheckIgnoreTime(place, item)} + 1 : 0;
    if (item.repetition > 1) {
        m_CheckPeriod(place, item, gap);
        return;
    }
    std::string value;
    m_findings.AddWarning(
        EPolicyFinding::THRESHOLD, place,
        (values.GetValue("repetition", value) ? "repetition " + std::to_string(item.repetition)
                                              : "repetition is missing and counts as 0") +
            ": every event is a hit");
}

void TCPolicyItemCheck::m_CheckPeriod(const TSPlace& place, const ZOLPolicyMonitor& item, std::int64_t gap) {
    const std::int32_t period = ToSeconds(item.duration);
    const std::string duration = "duration " + std::to_string(item.duration);
    if (period < 0) {
        m_findings.AddWarning(EPolicyFinding::PERIOD, place,
                              duration + ": no two events ever fall into one period");
    } else if (gap * (item.repetition - 1) > period) {
        m_findings.AddWarning(EPolicyFinding::PERIOD, place,
                              "never a hit: " + std::to_string(item.repetition) + " events, " +
                                  std::to_string(gap) + " seconds apart, do not fit into " + duration,
                              "duration is in minutes, the ignore time reserve1 in seconds");
    } else if (period == 0) {
        m_findings.AddWarning(EPolicyFinding::PERIOD, place,
                              duration + ": only events of the same second fall into one period");
    } else if (period == std::numeric_limits<std::int32_t>::max()) {
        m_findings.AddWarning(EPolicyFinding::PERIOD, place,
                              duration + " is held at " + std::to_string(period) + " seconds");
    }
}

std::int32_t TCPolicyItemCheck::m_CheckIgnoreTime(const TSPlace& place, const ZOLPolicyMonitor& item) {
    const std::int32_t read = ReadSeconds(item.reserve1);
    const std::int32_t seconds = read > 0 ? read : kDefaultIgnoreSeconds;
    if (item.reserve1 != "null" && item.reserve1 != std::to_string(seconds)) {
        m_findings.AddWarning(EPolicyFinding::IGNORE_TIME, place,
                              "reserve1 " + Quoted(item.reserve1) + " makes an ignore time of " +
                                  std::to_string(seconds) + " seconds");
    }
    return seconds;
}

}  // namespace zol
