#include "dlog.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>

#include "device_path.h"
#include "device_paths.h"
#include "dlog/log_sinks.h"

namespace {

constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

using SinkPtr = std::shared_ptr<spdlog::sinks::sink>;

/// Where the lines go. Chosen once.
struct Outputs {
    SinkPtr main;
    SinkPtr system;
    SinkPtr terminal;  ///< null when the standard error is no terminal
};

Outputs Choose() {
    const std::string folder = DevicePath(ZOL_PATH_LOG_DIR);
    const bool hasRoot = folder != ZOL_PATH_LOG_DIR;
    Outputs outputs;
    if (!hasRoot && access(kJournalSocket, F_OK) == 0) {
        outputs.main = std::make_shared<dlog::JournalSink>("main");
        outputs.system = std::make_shared<dlog::JournalSink>("system");
    } else {
        outputs.main = std::make_shared<dlog::FileSink>(folder + "/main.log");
        outputs.system = std::make_shared<dlog::FileSink>(folder + "/system.log");
    }
    if (isatty(STDERR_FILENO) != 0) {
        outputs.terminal = std::make_shared<spdlog::sinks::stderr_sink_mt>();
        outputs.terminal->set_formatter(std::make_unique<dlog::LineFormatter>());
    }
    return outputs;
}

/// Never destroyed: threads of the process may log until the very end.
Outputs& The() {
    static auto* outputs = new Outputs(Choose());
    return *outputs;
}

spdlog::level::level_enum Level(int priority) {
    const int known =
        std::clamp(priority, static_cast<int>(DLOG_PRIORITY_VERBOSE), static_cast<int>(DLOG_PRIORITY_FATAL));
    return static_cast<spdlog::level::level_enum>(known - DLOG_PRIORITY_VERBOSE);
}

void Emit(int buffer, int priority, const char* tag, const char* format, va_list arguments) {
    std::array<char, dlog::kMaxMessage> message;
    // The analyzer loses track of a list that was begun by the caller's caller.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int written = std::vsnprintf(message.data(), message.size(), format, arguments);
    std::size_t length = std::min(static_cast<std::size_t>(std::max(written, 0)), message.size() - 1);
    while (length > 0 && (message[length - 1] == '\n' || message[length - 1] == '\r')) {
        --length;
    }
    Outputs& outputs = The();
    const spdlog::details::log_msg line(spdlog::string_view_t(tag != nullptr ? tag : ""), Level(priority),
                                        spdlog::string_view_t(message.data(), length));
    (buffer == DLOG_BUFFER_SYSTEM ? outputs.system : outputs.main)->log(line);
    if (outputs.terminal != nullptr) {
        outputs.terminal->log(line);
    }
}

}  // namespace

extern "C" {

void dlog_vemit(int buffer, int priority, const char* tag, const char* format, va_list arguments) {
    // Whoever logs an error may still want to look at it.
    const int error = errno;
    try {
        Emit(buffer, priority, tag, format, arguments);
    } catch (...) {
        std::fputs("a log line was lost\n", stderr);
    }
    errno = error;
}

void dlog_emit(int buffer, int priority, const char* tag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    dlog_vemit(buffer, priority, tag, format, arguments);
    va_end(arguments);
}
}
