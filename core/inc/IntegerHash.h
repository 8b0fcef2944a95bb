#pragma once
/// A hash table from 32-bit keys to data.
#include <cstdint>

#include "Hash.h"

struct TSIntegerKeys;
extern template class CCHash<unsigned long, std::uint32_t, TSIntegerKeys>;

/// Keys are 32 bits wide: higher bits of an argument do not count.
class CCIntegerHash : public CCHash<unsigned long, std::uint32_t, TSIntegerKeys> {
public:
    /// @param sizeOfTable buckets wanted, 1 to 0x7fffffff; rounded up to 2 or to a prime
    /// False, after an assertion, out of range or when created before; false without memory.
    [[nodiscard]] bool Create(unsigned long sizeOfTable);
};
