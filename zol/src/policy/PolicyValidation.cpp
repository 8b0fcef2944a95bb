#include "PolicyValidation.h"

#include "Log.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCPolicyManager";
constexpr std::int32_t kNoNumber = -1;
constexpr const char* kNoText = "null";

bool IsApplicationNamed(const ZOLPolicyMonitor& item) {
    // Launch monitors are reported under the same words.
    if (item.id.empty()) {
        ZOL_LOG(LOG_ERROR, "APP_INSTALL, id is null or empty.");
        return false;
    }
    if (item.name.empty()) {
        ZOL_LOG(LOG_ERROR, "APP_INSTALL, name is null or empty.");
        return false;
    }
    return true;
}

bool IsAppInstallValid(const ZOLPolicyMonitor& item) {
    if (item.method != METHOD_APP_INSTALL) {
        ZOL_LOG(LOG_ERROR, "APP_INSTALL, method is not valid [%d]", item.method);
        return false;
    }
    return IsApplicationNamed(item);
}

bool IsAppLaunchValid(const ZOLPolicyMonitor& item) {
    if (item.method != METHOD_APP_LAUNCH) {
        ZOL_LOG(LOG_ERROR, "APP_LAUNCH, method is not valid [%d]", item.method);
        return false;
    }
    return IsApplicationNamed(item);
}

bool IsBtPairValid(const ZOLPolicyMonitor& item) {
    if (item.method != METHOD_BT_COUNTING && item.method != METHOD_BT_LAST_CONNECTED) {
        ZOL_LOG(LOG_ERROR, "ZOL_BT_PAIR, method is not valid [%d]", item.method);
        return false;
    }
    return true;
}

bool IsTypeAndMethodValid(const ZOLPolicyMonitor& item) {
    switch (item.type) {
        case APP_INSTALL:
            return IsAppInstallValid(item);
        case APP_LAUNCH:
            return IsAppLaunchValid(item);
        case ZOL_BT_PAIR:
            return IsBtPairValid(item);
        default:
            ZOL_LOG(LOG_ERROR, "MonitoringType is not valid [%d]", item.type);
            return false;
    }
}

// GREATER and LESS compare with intValue too, so the bounds say nothing about them.
bool IsIntItemValid(const ZOLVconfMonitor& item, std::int32_t condition) {
    if (condition == CONDITION_BETWEEN) {
        return (item.greater & item.less) != kNoNumber;
    }
    return item.intValue != kNoNumber;
}

bool IsStringItemValid(const ZOLVconfMonitor& item, std::int32_t condition) {
    return (condition == CONDITION_IS || condition == CONDITION_NOT) && item.strValue != kNoText;
}

bool HasComparableValue(const ZOLVconfMonitor& item, std::int32_t condition, std::int32_t valueType) {
    switch (valueType) {
        case VALUE_TYPE_INT:
            return IsIntItemValid(item, condition);
        case VALUE_TYPE_STRING:
            return IsStringItemValid(item, condition);
        default:
            return false;
    }
}

}  // namespace

const TCCodeMap& ConditionCodes() {
    static const TCCodeMap codes{{"IS", CONDITION_IS},
                                 {"NOT", CONDITION_NOT},
                                 {"GREATER", CONDITION_GREATER},
                                 {"LESS", CONDITION_LESS},
                                 {"BETWEEN", CONDITION_BETWEEN}};
    return codes;
}

const TCCodeMap& ValueTypeCodes() {
    static const TCCodeMap codes{{"INT", VALUE_TYPE_INT}, {"STRING", VALUE_TYPE_STRING}};
    return codes;
}

std::int32_t CodeOf(const TCCodeMap& codes, const std::string& word) {
    const auto found = codes.find(word);
    return found != codes.end() ? found->second : 0;
}

bool IsVconfPolicyValid(const ZOLVconfMonitor& item, std::int32_t condition, std::int32_t valueType) {
    if (condition == CONDITION_UNKNOWN || !HasComparableValue(item, condition, valueType)) {
        return false;
    }
    ZOL_LOG(LOG_ERROR, "bye");
    return true;
}

bool IsVconfPolicyValid(const ZOLVconfMonitor& item) {
    return IsVconfPolicyValid(item, CodeOf(ConditionCodes(), item.condition),
                              CodeOf(ValueTypeCodes(), item.type));
}

bool IsMonitorPolicyValid(const ZOLPolicyMonitor& item) {
    if (!IsTypeAndMethodValid(item)) {
        return false;
    }
    ZOL_LOG(LOG_INFO, "%s", "");
    ZOL_LOG(LOG_INFO, "type : %d", item.type);
    ZOL_LOG(LOG_INFO, "Id : %s", item.id.c_str());
    ZOL_LOG(LOG_INFO, "Name : %s", item.name.c_str());
    ZOL_LOG(LOG_INFO, "method : %d", item.method);
    ZOL_LOG(LOG_INFO, "duration : %d", item.duration);
    ZOL_LOG(LOG_INFO, "reptition : %d", item.repetition);
    ZOL_LOG(LOG_INFO, "%s", "");
    return true;
}

}  // namespace zol
