/// Loaded before a program with LD_PRELOAD: appends "main NANOSECONDS" to the file $ZOL_BENCH_TIMELINE when
/// the program's main begins and "store NANOSECONDS" when it has connected to the key service first. The
/// monotonic clock's. Programs that it starts keep silent.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

using Main = int (*)(int, char**, char**);
using Start = int (*)(Main, int, char**, void (*)(), void (*)(), void (*)(), void*);
using Connect = int (*)(int, const sockaddr*, socklen_t);

constexpr const char* kStore = "/vconf.sock";

Main g_main = nullptr;
int g_file = -1;

void Note(const char* what) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::array<char, 64> line;
    const int length = std::snprintf(line.data(), line.size(), "%s %lld\n", what,
                                     static_cast<long long>(now.tv_sec) * 1000000000 + now.tv_nsec);
    if (write(g_file, line.data(), static_cast<std::size_t>(length)) != length) {
        g_file = -1;
    }
}

int NotedMain(int argc, char** argv, char** environment) {
    if (const char* const path = std::getenv("ZOL_BENCH_TIMELINE")) {
        g_file = open(path, O_WRONLY | O_APPEND | O_CLOEXEC);
        unsetenv("ZOL_BENCH_TIMELINE");
        Note("main");
    }
    return g_main(argc, argv, environment);
}

}  // namespace

extern "C" {

int __libc_start_main(Main main, int argc, char** argv, void (*init)(), void (*fini)(), void (*ldFini)(),
                      void* stackEnd) {
    g_main = main;
    const auto real = reinterpret_cast<Start>(dlsym(RTLD_NEXT, "__libc_start_main"));
    return real(NotedMain, argc, argv, init, fini, ldFini, stackEnd);
}

int connect(int socket, const sockaddr* address, socklen_t length) {
    static const auto real = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "connect"));
    const int result = real(socket, address, length);
    if (result == 0 && g_file >= 0 && address->sa_family == AF_UNIX) {
        const char* const path = reinterpret_cast<const sockaddr_un*>(address)->sun_path;
        const std::size_t bytes = strnlen(path, length - offsetof(sockaddr_un, sun_path));
        if (bytes >= std::strlen(kStore) &&
            std::strncmp(path + bytes - std::strlen(kStore), kStore, std::strlen(kStore)) == 0) {
            Note("store");
            close(g_file);
            g_file = -1;
        }
    }
    return result;
}
}
