#pragma once
/// A hash table from strings, or from byte strings of one length, to data.
#include "Hash.h"

struct TSStringKeys;
extern template class CCHash<const void*, const void*, TSStringKeys>;

/// As CCIntegerHash, with keys that each node keeps a copy of; Key gives that copy. A failed assertion ends
/// the process; one of them is that the table is empty when it is destroyed.
class CCStringHash : public CCHash<const void*, const void*, TSStringKeys> {
public:
    /// The key length of NUL-terminated keys.
    static constexpr unsigned long kNulTerminated = static_cast<unsigned long>(-1);

    /// @param keyLength bytes of every key, or kNulTerminated
    [[nodiscard]] bool Create(unsigned long sizeOfTable, unsigned long keyLength);
};
