#include "IntegerHash.h"

#include <cstdint>

#include "HashBodies.h"

struct TSIntegerKeys : TSPlainKeys<std::uint32_t> {
    static constexpr const char* kSource = "core/src/IntegerHash";
    static constexpr const char* kHeader = "core/inc/IntegerHash";
};

template class CCHash<std::uint32_t, TSIntegerKeys>;

bool CCIntegerHash::Create(unsigned long sizeOfTable) {
    return t_Create(sizeOfTable, {});
}

bool CCIntegerHash::Add(unsigned long key, const void* data) {
    return t_Add(static_cast<std::uint32_t>(key), data);
}

bool CCIntegerHash::Find(unsigned long key) {
    return t_Find(static_cast<std::uint32_t>(key));
}

unsigned long CCIntegerHash::Key() const {
    return t_Key();
}
