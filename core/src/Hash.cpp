#include "HashBodies.h"

namespace {

bool IsPrime(std::uint32_t number) {
    // The divisor is compared by division: its square may not fit.
    for (std::uint32_t divisor = 2; divisor <= number / divisor; ++divisor) {
        if (number % divisor == 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::uint32_t HashTableSize(std::uint32_t request) {
    std::uint32_t size = request < 2 ? 2 : request;
    while (!IsPrime(size)) {
        ++size;
    }
    return size;
}
