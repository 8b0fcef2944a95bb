#pragma once
/// A hash table from 64-bit keys to data.
#include <cstdint>

#include "Hash.h"

struct TSInt64Keys;
extern template class CCHash<std::uint64_t, std::uint64_t, TSInt64Keys>;

/// As CCIntegerHash, with 64-bit keys.
class CCInt64Hash : public CCHash<std::uint64_t, std::uint64_t, TSInt64Keys> {
public:
    [[nodiscard]] bool Create(unsigned long sizeOfTable);
};
