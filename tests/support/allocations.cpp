#include "allocations.h"

#include <cstddef>

namespace {
thread_local unsigned long t_count = 0;
thread_local unsigned long t_freed = 0;
}  // namespace

unsigned long ThreadAllocations() {
    return t_count;
}
long ThreadBlocksInUse() {
    return static_cast<long>(t_count - t_freed);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

// The sanitizers bring a malloc of their own and call hooks.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, std::size_t),
                                                         void (*)(const volatile void*));

namespace {
void OnMalloc(const volatile void* /*memory*/, std::size_t /*size*/) {
    ++t_count;
}
void OnFree(const volatile void* memory) {
    t_freed += memory != nullptr ? 1 : 0;
}

const int g_installed = __sanitizer_install_malloc_and_free_hooks(&OnMalloc, &OnFree);
}  // namespace

#else

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);

void* malloc(std::size_t size) {
    ++t_count;
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    ++t_count;
    return __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) {
    ++t_count;
    t_freed += memory != nullptr ? 1 : 0;
    return __libc_realloc(memory, size);
}
void free(void* memory) {
    t_freed += memory != nullptr ? 1 : 0;
    __libc_free(memory);
}
}

#endif
