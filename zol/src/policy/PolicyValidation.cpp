#include "PolicyValidation.h"

#include "PolicyWords.h"

namespace zol {
namespace {

constexpr std::int32_t kNoNumber = -1;
constexpr const char* kNoText = "null";

// GREATER and LESS compare with intValue too, so the bounds say nothing about them.
EPolicyFault CheckInt(const ZOLVconfMonitor& item, std::int32_t condition) {
    if (condition == CONDITION_BETWEEN) {
        return (item.greater & item.less) != kNoNumber ? EPolicyFault::NONE : EPolicyFault::NO_BOUNDS;
    }
    return item.intValue != kNoNumber ? EPolicyFault::NONE : EPolicyFault::NO_INT_VALUE;
}

EPolicyFault CheckString(const ZOLVconfMonitor& item, std::int32_t condition) {
    if (condition != CONDITION_IS && condition != CONDITION_NOT) {
        return EPolicyFault::STRING_CONDITION;
    }
    return item.strValue != kNoText ? EPolicyFault::NONE : EPolicyFault::NO_STR_VALUE;
}

EPolicyFault CheckApplication(const ZOLPolicyMonitor& item) {
    if (item.id.empty()) {
        return EPolicyFault::NO_ID;
    }
    return item.name.empty() ? EPolicyFault::NO_NAME : EPolicyFault::NONE;
}

}  // namespace

EPolicyFault CheckVconfPolicy(const ZOLVconfMonitor& item, std::int32_t condition, std::int32_t valueType) {
    if (condition == CONDITION_UNKNOWN) {
        return EPolicyFault::CONDITION;
    }
    switch (valueType) {
        case VALUE_TYPE_INT:
            return CheckInt(item, condition);
        case VALUE_TYPE_STRING:
            return CheckString(item, condition);
        default:
            return EPolicyFault::VALUE_TYPE;
    }
}

EPolicyFault CheckVconfPolicy(const ZOLVconfMonitor& item) {
    return CheckVconfPolicy(item, CodeOf(kConditionWords, item.condition),
                            CodeOf(kValueTypeWords, item.type));
}

EPolicyFault CheckMonitorPolicy(const ZOLPolicyMonitor& item) {
    switch (item.type) {
        case APP_INSTALL:
            return item.method == METHOD_APP_INSTALL ? CheckApplication(item)
                                                     : EPolicyFault::APP_INSTALL_METHOD;
        case APP_LAUNCH:
            return item.method == METHOD_APP_LAUNCH ? CheckApplication(item)
                                                    : EPolicyFault::APP_LAUNCH_METHOD;
        case ZOL_BT_PAIR:
            return item.method == METHOD_BT_COUNTING || item.method == METHOD_BT_LAST_CONNECTED
                       ? EPolicyFault::NONE
                       : EPolicyFault::BT_PAIR_METHOD;
        default:
            return EPolicyFault::MONITORING_TYPE;
    }
}

}  // namespace zol
