#pragma once
/// The policy as the daemon holds it: plain values, copied freely.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zol {

/// The longest policy text that is taken, stored or read back, in bytes: some ten thousand items.
constexpr std::size_t kMaxPolicyBytes = std::size_t{4} * 1024 * 1024;

/// How a vconf item compares the key's value. PolicyWords.h has the words.
enum ECondition {
    CONDITION_UNKNOWN = 0,
    CONDITION_IS = 1,       ///< value == intValue, or text equals strValue
    CONDITION_NOT = 2,      ///< value != intValue, or text differs from strValue
    CONDITION_GREATER = 3,  ///< value > intValue
    CONDITION_LESS = 4,     ///< value < intValue
    CONDITION_BETWEEN = 5   ///< greater < value < less
};

enum EValueType { VALUE_TYPE_UNKNOWN = 0, VALUE_TYPE_INT = 1, VALUE_TYPE_STRING = 2 };

enum EMonitoringType {
    APP_INSTALL = 1,  ///< repeated installation of one web application; method 11
    APP_LAUNCH = 2,   ///< reserved; method 21
    ZOL_BT_PAIR = 3   ///< re-pairing of the smart remote; methods 31 and 32
};

constexpr int METHOD_APP_INSTALL = 11;
constexpr int METHOD_APP_LAUNCH = 21;
constexpr int METHOD_BT_COUNTING = 31;
constexpr int METHOD_BT_LAST_CONNECTED = 32;

/// One watched vconf key. -1 and "null" mean "not given".
struct ZOLVconfMonitor {
    std::string key;
    std::string condition;  ///< a word of ECondition, as it stood in the document
    std::int32_t intValue = -1;
    std::int32_t greater = -1;
    std::int32_t less = -1;
    std::string strValue = "null";
    std::string type;  ///< a word of EValueType, as it stood in the document
};

/// Items that several objects look at; nobody changes them any more. Never null.
using SharedVconfItems = std::shared_ptr<const std::vector<ZOLVconfMonitor>>;

/// One behaviour monitor.
struct ZOLPolicyMonitor {
    std::int32_t type = 0;  ///< EMonitoringType
    std::string id;         ///< application id
    std::string name;
    std::int32_t method = 0;
    std::int32_t duration = 0;      ///< counting period, minutes
    std::int32_t repetition = 0;    ///< count that makes a hit
    std::string reserve1 = "null";  ///< ZOL_BT_PAIR: ignore time in seconds, decimal
};

/// A whole policy.
struct ZOLPolicy {
    std::int32_t version = -1;  ///< the document carries none
    std::int32_t numOfZol = 0;
    std::vector<ZOLVconfMonitor> vconfMonitors;
    std::vector<ZOLPolicyMonitor> policyMonitors;
    std::uint64_t expiredTime = 0;  ///< seconds after the start of the policy
    std::string text;               ///< reserved; nothing sets it
};

}  // namespace zol
