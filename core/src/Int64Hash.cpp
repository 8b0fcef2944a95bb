#include "Int64Hash.h"

#include <cstdint>

#include "HashBodies.h"

struct TSInt64Keys : TSPlainKeys<std::uint64_t> {
    static constexpr const char* kSource = "core/src/Int64Hash";
    static constexpr const char* kHeader = "core/inc/Int64Hash";
};

template class CCHash<std::uint64_t, std::uint64_t, TSInt64Keys>;

bool CCInt64Hash::Create(unsigned long sizeOfTable) {
    return t_Create(sizeOfTable, {});
}
