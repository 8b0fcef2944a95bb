#pragma once
/// The words of a policy document that mean a code.
#include <array>
#include <cstddef>
#include <cstdint>
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

}  // namespace zol
