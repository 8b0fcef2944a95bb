#pragma once
/// Which items of a parsed policy are fit to be watched. Stateless; any thread.
#include <cstdint>
#include <map>
#include <string>

#include "ZOLPolicy.h"

namespace zol {

using TCCodeMap = std::map<std::string, std::int32_t>;

/// The condition words with their ECondition codes.
const TCCodeMap& ConditionCodes();
/// The value type words with their EValueType codes.
const TCCodeMap& ValueTypeCodes();

/// The code of `word`, matched to the letter; 0 when the map does not hold it.
std::int32_t CodeOf(const TCCodeMap& codes, const std::string& word);

/// True when a vconf item of these codes can be watched: a known condition and type, and the value that the
/// condition compares with is given. INT: BETWEEN takes any pair of bounds but -1 with -1, the others take
/// any intValue but -1. STRING: IS and NOT with a strValue other than "null". Logs "bye" when it accepts.
bool IsVconfPolicyValid(const ZOLVconfMonitor& item, std::int32_t condition, std::int32_t valueType);
/// The same, with the codes looked up in ConditionCodes and ValueTypeCodes.
bool IsVconfPolicyValid(const ZOLVconfMonitor& item);

/// True when the method fits the monitor's type and, for applications, id and name are given. Logs the
/// reason when it refuses, and the item when it accepts.
bool IsMonitorPolicyValid(const ZOLPolicyMonitor& item);

}  // namespace zol
