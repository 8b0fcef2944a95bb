#pragma once
/// Which items of a parsed policy are fit to be watched, and why the others are not. Stateless, logs nothing;
/// any thread.
#include <cstdint>

#include "ZOLPolicy.h"

namespace zol {

/// What is wrong with an item; of several faults the first in the order of the checks.
enum class EPolicyFault {
    NONE,
    CONDITION,         ///< no condition word
    VALUE_TYPE,        ///< no value type word
    NO_INT_VALUE,      ///< an INT that is not compared with bounds lacks an intValue other than -1
    NO_BOUNDS,         ///< both bounds of an INT BETWEEN are -1
    STRING_CONDITION,  ///< a STRING can only be, or not be, a value
    NO_STR_VALUE,      ///< a STRING lacks a strValue other than "null"
    MONITORING_TYPE,   ///< no EMonitoringType
    APP_INSTALL_METHOD,
    APP_LAUNCH_METHOD,
    BT_PAIR_METHOD,
    NO_ID,   ///< an application monitor lacks the application's id
    NO_NAME  ///< an application monitor lacks the application's name
};

/// Checks condition and value type first, then that the value which the condition compares with is given.
[[nodiscard]] EPolicyFault CheckVconfPolicy(const ZOLVconfMonitor& item);
/// The same for codes that the caller has looked up: an ECondition and an EValueType.
[[nodiscard]] EPolicyFault CheckVconfPolicy(const ZOLVconfMonitor& item, std::int32_t condition,
                                            std::int32_t valueType);

/// Checks type, method, id and name, in this order; the last two for applications only.
[[nodiscard]] EPolicyFault CheckMonitorPolicy(const ZOLPolicyMonitor& item);

}  // namespace zol
