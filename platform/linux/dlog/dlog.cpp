#include "dlog.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "base/exception_wall.h"
#include "base/log_text.h"
#include "device_path.h"
#include "device_paths.h"
#include "dlog/log_sinks.h"

namespace {

/// Where the lines go. Chosen once.
struct Outputs {
    std::unique_ptr<dlog::Sink> main;
    std::unique_ptr<dlog::Sink> system;
    std::unique_ptr<dlog::Sink> terminal;  ///< null when the standard error is no terminal
};

Outputs Choose() {
    const std::string folder = DevicePath(ZOL_PATH_LOG_DIR);
    const bool hasRoot = folder != ZOL_PATH_LOG_DIR;
    Outputs outputs;
    if (!hasRoot && access(ZOL_PATH_JOURNAL_SOCKET, F_OK) == 0) {
        outputs.main = std::make_unique<dlog::JournalSink>("main");
        outputs.system = std::make_unique<dlog::JournalSink>("system");
    } else {
        outputs.main = std::make_unique<dlog::FileSink>(folder + "/main.log");
        outputs.system = std::make_unique<dlog::FileSink>(folder + "/system.log");
    }
    if (isatty(STDERR_FILENO) != 0) {
        outputs.terminal = std::make_unique<dlog::TerminalSink>();
    }
    return outputs;
}

/// Never destroyed: threads of the process may log until the very end.
Outputs& The() {
    static auto* outputs = new Outputs(Choose());
    return *outputs;
}

std::atomic<pid_t> g_process{0};
thread_local pid_t t_thread = 0;

// Each is a system call, and stays the same until the process forks.
pid_t Process() {
    pid_t process = g_process.load(std::memory_order_relaxed);
    if (process == 0) {
        // Registered once in each family of processes: a child inherits it.
        static const int registered = pthread_atfork(nullptr, nullptr, [] {
            g_process.store(0, std::memory_order_relaxed);
            t_thread = 0;
        });
        process = getpid();
        if (registered == 0) {
            g_process.store(process, std::memory_order_relaxed);
        }
    }
    return process;
}

pid_t Thread() {
    if (t_thread == 0) {
        t_thread = gettid();
    }
    return t_thread;
}

int Level(int priority) {
    return std::clamp<int>(priority, DLOG_PRIORITY_VERBOSE, DLOG_PRIORITY_FATAL) - DLOG_PRIORITY_VERBOSE;
}

__attribute__((format(printf, 4, 0))) void Emit(int buffer, int priority, const char* tag, const char* format,
                                                va_list arguments) {
    std::array<char, dlog::kMaxMessage> message;
    std::string_view text = base::FormatText(message.data(), message.size(), format, arguments);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    Outputs& outputs = The();
    dlog::Message line{Level(priority), tag != nullptr ? tag : "", text, {}, Process(), Thread()};
    clock_gettime(CLOCK_REALTIME, &line.time);
    (buffer == DLOG_BUFFER_SYSTEM ? outputs.system : outputs.main)->Write(line);
    if (outputs.terminal != nullptr) {
        outputs.terminal->Write(line);
    }
}

}  // namespace

extern "C" {

void dlog_vemit(int buffer, int priority, const char* tag, const char* format, va_list arguments) {
    // Whoever logs an error may still want to look at it.
    const int error = errno;
    base::CatchAll([&] { Emit(buffer, priority, tag, format, arguments); },
                   [](const char* /*why*/) { std::fputs("a log line was lost\n", stderr); });
    errno = error;
}

void dlog_emit(int buffer, int priority, const char* tag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    dlog_vemit(buffer, priority, tag, format, arguments);
    va_end(arguments);
}
}
