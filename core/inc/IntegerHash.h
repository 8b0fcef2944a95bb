#pragma once
/// A hash table from 32-bit keys to data.
#include <cstdint>

#include "Hash.h"

struct TSIntegerKeys;
extern template class CCHash<std::uint32_t, TSIntegerKeys>;

/// A key may occur more than once; the node added last is found first. Keys are 32 bits wide: higher bits of
/// an argument do not count.
class CCIntegerHash : public CCHash<std::uint32_t, TSIntegerKeys> {
public:
    /// @param sizeOfTable buckets wanted, 1 to 0x7fffffff; rounded up to 2 or to a prime
    /// False, after an assertion, out of range or when created before; false without memory.
    [[nodiscard]] bool Create(unsigned long sizeOfTable);
    /// Adds a node and makes it current. False without memory.
    [[nodiscard]] bool Add(unsigned long key, const void* data);
    /// Makes the node with this key current. False when there is none; nothing is current any more when the
    /// key's bucket is empty.
    [[nodiscard]] bool Find(unsigned long key);
    /// The current node's key; 0, after an assertion, when nothing is current, and 0 after Remove.
    unsigned long Key() const;
};
