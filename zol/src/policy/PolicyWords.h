#pragma once
/// What stands in a policy document: the words that mean a code, and the attributes of an item.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "ZOLPolicy.h"

namespace zol {

struct TSWord {
    std::string_view word;
    std::int32_t code;
};

inline constexpr std::array<TSWord, 5> kConditionWords{{{"IS", CONDITION_IS},
                                                        {"NOT", CONDITION_NOT},
                                                        {"GREATER", CONDITION_GREATER},
                                                        {"LESS", CONDITION_LESS},
                                                        {"BETWEEN", CONDITION_BETWEEN}}};

inline constexpr std::array<TSWord, 2> kValueTypeWords{
    {{"INT", VALUE_TYPE_INT}, {"STRING", VALUE_TYPE_STRING}}};

/// The code of `word`, matched to the letter; 0 when the table does not hold it.
template <std::size_t N>
constexpr std::int32_t CodeOf(const std::array<TSWord, N>& words, std::string_view word) {
    for (const TSWord& known : words) {
        if (known.word == word) {
            return known.code;
        }
    }
    return 0;
}

/// An attribute, in lower case, and the member of the item that it fills: exactly one of the two.
template <typename Item>
struct TSItemAttribute {
    const char* name;
    std::string Item::*text = nullptr;
    std::int32_t Item::*number = nullptr;
};

inline constexpr std::array<TSItemAttribute<ZOLVconfMonitor>, 7> kVconfAttributes{
    {{"key", &ZOLVconfMonitor::key},
     {"condition", &ZOLVconfMonitor::condition},
     {"intvalue", nullptr, &ZOLVconfMonitor::intValue},
     {"greater", nullptr, &ZOLVconfMonitor::greater},
     {"less", nullptr, &ZOLVconfMonitor::less},
     {"strvalue", &ZOLVconfMonitor::strValue},
     {"type", &ZOLVconfMonitor::type}}};

inline constexpr std::array<TSItemAttribute<ZOLPolicyMonitor>, 7> kMonitorAttributes{
    {{"kind", nullptr, &ZOLPolicyMonitor::type},
     {"id", &ZOLPolicyMonitor::id},
     {"name", &ZOLPolicyMonitor::name},
     {"method", nullptr, &ZOLPolicyMonitor::method},
     {"duration", nullptr, &ZOLPolicyMonitor::duration},
     {"repetition", nullptr, &ZOLPolicyMonitor::repetition},
     {"reserve1", &ZOLPolicyMonitor::reserve1}}};

}  // namespace zol
