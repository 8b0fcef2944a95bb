#include "StringHash.h"

#include <cstdint>
#include <cstring>
#include <new>

#include "HashBodies.h"
#include "Logging.h"

struct TSStringKeys {
    static constexpr const char* kSource = "core/src/StringHash";
    static constexpr const char* kHeader = "core/inc/StringHash";
    static constexpr bool kMustBeEmpty = true;

    unsigned long length;

    static void Report(const char* expression, const char* source, int line) {
        __ASSERT(expression, source, line);
    }

    bool NulTerminated() const { return length == CCStringHash::kNulTerminated; }

    std::size_t Length(const void* key) const {
        return NulTerminated() ? std::strlen(static_cast<const char*>(key)) : length;
    }

    std::uint32_t Hash(const void* key) const {
        const auto* const bytes = static_cast<const unsigned char*>(key);
        const std::size_t size = Length(key);
        std::uint32_t hash = 0;
        for (std::size_t i = 0; i < size; ++i) {
            hash = HashByte(hash, bytes[i]);
        }
        return hash;
    }

    bool Equal(const void* a, const void* b) const {
        return NulTerminated() ? std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b)) == 0
                               : std::memcmp(a, b, length) == 0;
    }

    bool Copy(const void* key, const void** copy) const {
        const std::size_t size = Length(key) + (NulTerminated() ? 1 : 0);
        auto* const bytes = new (std::nothrow) unsigned char[size];
        if (bytes == nullptr) {
            return false;
        }
        std::memcpy(bytes, key, size);
        *copy = bytes;
        return true;
    }

    static void Free(const void* copy) { delete[] static_cast<const unsigned char*>(copy); }
};

template class CCHash<const void*, const void*, TSStringKeys>;

bool CCStringHash::Create(unsigned long sizeOfTable, unsigned long keyLength) {
    return t_Create(sizeOfTable, {keyLength});
}
