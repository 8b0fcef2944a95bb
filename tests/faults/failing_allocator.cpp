/// To be loaded before a program: one of its allocations fails. $ZOL_FAULTS_CONTROL names the file of a
/// faults::Control; those of the programs in it count, from their main on.
#include <dlfcn.h>
#include <execinfo.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "control.h"

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

using Main = int (*)(int, char**, char**);
using Start = int (*)(Main, int, char**, void (*)(), void (*)(), void (*)(), void*);

constexpr int kMaxFrames = 24;

faults::Control* g_control = nullptr;  // null where nothing counts
Main g_main = nullptr;

/// Who asked for the allocation that fails: files and offsets, for addr2line.
void Describe() {
    faults::Control* const control = g_control;
    g_control = nullptr;  // what this needs does not count
    std::array<void*, kMaxFrames> frames;
    const int count = backtrace(frames.data(), kMaxFrames);
    int used = std::snprintf(control->place, sizeof(control->place), "%s: allocation",
                             program_invocation_short_name);
    for (int i = 2; i < count && used < static_cast<int>(sizeof(control->place)); ++i) {
        Dl_info info{};
        if (dladdr(frames[static_cast<std::size_t>(i)], &info) == 0 || info.dli_fname == nullptr) {
            continue;
        }
        const char* const slash = std::strrchr(info.dli_fname, '/');
        const auto offset = static_cast<const char*>(frames[static_cast<std::size_t>(i)]) -
                            static_cast<const char*>(info.dli_fbase);
        used += std::snprintf(control->place + used, sizeof(control->place) - static_cast<std::size_t>(used),
                              " %s+0x%tx", slash != nullptr ? slash + 1 : info.dli_fname, offset);
    }
    g_control = control;
}

bool Fails() {
    if (g_control == nullptr || g_control->isArmed == 0 || !Counts(g_control, faults::Kind::Allocation)) {
        return false;
    }
    Describe();
    errno = ENOMEM;
    return true;
}

int CountedMain(int argc, char** argv, char** environment) {
    std::array<void*, 1> frame;
    backtrace(frame.data(), 1);  // loads what it needs
    const char* const path = std::getenv("ZOL_FAULTS_CONTROL");
    faults::Control* control = path != nullptr ? faults::MapControl(path) : nullptr;
    const std::string name = std::string(":") + program_invocation_short_name + ":";
    if (control != nullptr && std::strstr(control->programs, name.c_str()) != nullptr) {
        g_control = control;
    }
    return g_main(argc, argv, environment);
}

}  // namespace

extern "C" {

int __libc_start_main(Main main, int argc, char** argv, void (*init)(), void (*fini)(), void (*ldFini)(),
                      void* stackEnd) {
    g_main = main;
    const auto real = reinterpret_cast<Start>(dlsym(RTLD_NEXT, "__libc_start_main"));
    return real(CountedMain, argc, argv, init, fini, ldFini, stackEnd);
}

void* malloc(std::size_t size) {
    return Fails() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    return Fails() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) {
    return Fails() ? nullptr : __libc_realloc(memory, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return Fails() ? nullptr : __libc_memalign(alignment, size);
}
int posix_memalign(void** out, std::size_t alignment, std::size_t size) {
    if (Fails()) {
        return ENOMEM;
    }
    *out = __libc_memalign(alignment, size);
    return *out != nullptr ? 0 : ENOMEM;
}
}
