#pragma once
/// How a rule's condition compares. Stateless, any thread.
#include <cstdint>
#include <string>

#include "ZOLPolicy.h"

namespace zol {

/// CONDITION_IS, NOT, GREATER and LESS; false for any other.
[[nodiscard]] constexpr bool Holds(std::int32_t condition, std::int32_t value, std::int32_t operand) {
    return (condition == CONDITION_IS && value == operand) ||
           (condition == CONDITION_NOT && value != operand) ||
           (condition == CONDITION_GREATER && value > operand) ||
           (condition == CONDITION_LESS && value < operand);
}

/// CONDITION_BETWEEN; neither bound is between.
[[nodiscard]] constexpr bool IsBetween(std::int32_t greater, std::int32_t value, std::int32_t less) {
    return greater < value && value < less;
}

/// CONDITION_IS and NOT, byte for byte; false for any other.
[[nodiscard]] inline bool Holds(std::int32_t condition, const std::string& value,
                                const std::string& operand) {
    return (condition == CONDITION_IS && value == operand) ||
           (condition == CONDITION_NOT && value != operand);
}

}  // namespace zol
