#include "IntegerHash.h"

#include <cstdint>

#include "HashBodies.h"

struct TSIntegerKeys : TSPlainKeys<std::uint32_t> {
    static constexpr const char* kSource = "core/src/IntegerHash";
    static constexpr const char* kHeader = "core/inc/IntegerHash";
};

template class CCHash<unsigned long, std::uint32_t, TSIntegerKeys>;

bool CCIntegerHash::Create(unsigned long sizeOfTable) {
    return t_Create(sizeOfTable, {});
}
