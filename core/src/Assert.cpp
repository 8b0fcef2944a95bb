#include <execinfo.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <memory>

#include "Logging.h"
#include "base/handles.h"
#include "base/unique_fd.h"
#include "device_path.h"
#include "device_paths.h"

namespace {

constexpr int kMaxFrames = 100;
constexpr std::size_t kThreadNameSize = 16;  // the kernel's, terminator included

/// Opens an existing console: an assertion must not leave a file behind where there is none.
base::FilePtr OpenConsole(const char* path) {
    return base::OpenStream(base::UniqueFd(open(path, O_WRONLY | O_TRUNC | O_NOCTTY | O_CLOEXEC)), "w");
}

void WriteCallStack(std::FILE* console) {
    void* frames[kMaxFrames];
    const int count = backtrace(frames, kMaxFrames);
    const std::unique_ptr<char*, base::FreeWith<std::free>> symbols(backtrace_symbols(frames, count));
    if (!symbols) {
        return;
    }
    std::fprintf(console, "Callstack:\n");
    for (int i = 1; i < count; ++i) {
        std::fprintf(console, "%s\n", symbols.get()[i]);
    }
}

void WriteReport(std::FILE* console, const char* expression, const char* file, int line) {
    char name[kThreadNameSize] = {};
    prctl(PR_GET_NAME, name);
    std::fprintf(console, "This sentence is redirected to a serial output. \n");
    std::fprintf(console, "Assertion failed: %s (%d) - %s\n", file, line, expression);
    std::fprintf(console, "Debug information:\n");
    std::fprintf(console, "Posix Thread ID: 0x%08lx\n", ThreadId());
    std::fprintf(console, "Linux Thread ID:   %8ld (%s)\n", static_cast<long>(syscall(SYS_gettid)), name);
    WriteCallStack(console);
    std::fflush(console);
}

[[noreturn]] void Crash() {
    // Both volatile: the compiler must neither see that the pointer is null and turn the store into a trap,
    // nor drop the store because nothing reads it before the end.
    volatile int* volatile nowhere = nullptr;
    *nowhere = 0;
    std::abort();
}

/// Crashes the process, unless this image survives failed assertions.
void CrashUnlessForgiving() {
    char path[PATH_MAX];
    device_path_map(ZOL_PATH_RELEASE_MARKER, path, sizeof(path));
    const base::FilePtr marker(std::fopen(path, "rb+e"));
    if (!marker) {
        Crash();
    }
}

}  // namespace

void __ASSERT_ATSC3(const char* expression, const char* file, int line) {
    _PRINT(LOG_TYPE_E, "ASSERT: %s [%s:%d]", expression, file, line);
    char path[PATH_MAX];
    device_path_map(ZOL_PATH_CONSOLE, path, sizeof(path));
    if (!check_realpath(path)) {
        return;
    }
    if (const base::FilePtr console = OpenConsole(path)) {
        WriteReport(console.get(), expression, file, line);
    }
    CrashUnlessForgiving();
}

void __ASSERT(const char* expression, const char* file, int line) {
    g_print("[%s:%d] ASSERT: %s", file, line, expression);
    CrashUnlessForgiving();
    std::exit(0);
}
