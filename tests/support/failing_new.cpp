#include "failing_new.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace {

thread_local std::size_t t_failing = 0;

void* Allocate(std::size_t size) noexcept {
    if (t_failing > 0 && --t_failing == 0) {
        return nullptr;
    }
    return std::malloc(size > 0 ? size : 1);
}

void* AllocateOrThrow(std::size_t size) {
    void* memory = Allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

std::size_t FailAllocation(std::size_t next) {
    return std::exchange(t_failing, next);
}

// Every form that is not over-aligned: a sanitizer brings its own of those that are missing, and theirs do
// not go with these.
void* operator new(std::size_t size) {
    return AllocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return AllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
