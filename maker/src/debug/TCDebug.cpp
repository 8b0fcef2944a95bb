#include "TCDebug.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>
#include <system_error>

#include "MakerLog.h"
#include "base/exception_wall.h"
#include "base/log_text.h"
#include "base/rotating_file.h"
#include "device_path.h"
#include "device_paths.h"
#include "platform_clock.h"

namespace {

constexpr std::size_t kMaxLine = 2304;        // bytes, the line feed included
constexpr std::int64_t kMaxFileSize{524288};  // bytes; with the file kept aside 1 MiB

/// The lines are built here rather than on the stack: the runtime's threads have small ones.
struct Line {
    char text[kMaxLine];
    std::size_t length;
};

std::mutex g_mutex;  // guards the three below
base::LocalStamp g_stamp;
Line g_line;
std::unique_ptr<base::RotatingFile>& TheFile() {
    // Never freed: lines may come from static destructors.
    static auto* file = new std::unique_ptr<base::RotatingFile>;
    return *file;
}

void Report(const char* what, const char* why) {
    MAKER_ERROR("the debug log %s %s: %s", ZOL_PATH_DEBUG_LOG, what, why);
}

std::unique_ptr<base::RotatingFile> NewFile() {
    return std::make_unique<base::RotatingFile>(
        base::RotatingFile::Place{DevicePath("/"), DevicePath(ZOL_PATH_DEBUG_LOG)},
        base::RotatingFile::Limits{kMaxFileSize, 1, base::RotatingFile::Numbers::AtEnd},
        &platform_clock_steady_ns,
        [](const char* what, const std::error_code& error) { Report(what, error.message().c_str()); });
}

void Append(Line& line, std::string_view text) {
    const std::size_t room = sizeof(line.text) - 1 - line.length;
    line.length += text.copy(line.text + line.length, room);
}

void AppendNow(Line& line) {
    platform_time_t now{};
    platform_clock_realtime(&now);
    Append(line, g_stamp.Of(now.seconds, now.nanoseconds));
}

void AppendNumber(Line& line, unsigned number) {
    std::array<char, 10> digits;
    const char* end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    Append(line, {digits.data(), static_cast<std::size_t>(end - digits.data())});
}

__attribute__((format(printf, 2, 0))) void AppendMessage(Line& line, const char* format, va_list arguments) {
    char* const end = line.text + line.length;
    const std::string_view text = base::FormatText(end, sizeof(line.text) - line.length, format, arguments);
    if (text.data() == end) {
        line.length += text.size();
    } else {
        Append(line, text);
    }
}

/// One message is one line, whatever it holds.
void Terminate(Line& line) {
    while (line.length > 0 && line.text[line.length - 1] == '\n') {
        --line.length;
    }
    if (base::HasControls({line.text, line.length})) {
        std::replace_if(
            line.text, line.text + line.length,
            [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, ' ');
    }
    line.text[line.length++] = '\n';
}

}  // namespace

TCDebug TCDebug::s_object;
TCDebug* const TCDebug::m_instance = &TCDebug::s_object;

void TCDebug::External(const char* className, const char* function, unsigned line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    VExternal(className, function, line, format, arguments);
    va_end(arguments);
}

void TCDebug::VExternal(const char* className, const char* function, unsigned line, const char* format,
                        va_list arguments) {
    if (!OutputEnabled()) {
        return;
    }
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_line.length = 0;
    AppendNow(g_line);
    for (const char* part : {" ", className, " ", function, "("}) {
        Append(g_line, part);
    }
    AppendNumber(g_line, line);
    Append(g_line, ") ");
    AppendMessage(g_line, format, arguments);
    Terminate(g_line);
    if (TheFile() != nullptr) {
        base::CatchAll(
            [] {
                TheFile()->Write({g_line.text, g_line.length});
            },
            [](const char* why) { Report("cannot be written", why); });
    }
    if (m_consoleLog.load(std::memory_order_relaxed)) {
        // Nobody can be told when standard error is gone.
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, g_line.text, g_line.length);
    }
}

void TCDebug::EnableFileLog(bool on) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    TheFile() = base::CatchAll([on] { return on ? NewFile() : nullptr; },
                               [](const char* why) { Report("cannot be opened", why); });
    s_object.m_fileLog.store(TheFile() != nullptr, std::memory_order_relaxed);
}

void TCDebug::EnableConsoleLog(bool on) {
    s_object.m_consoleLog.store(on, std::memory_order_relaxed);
}

void TCDebug::Assert(const char* file, unsigned line) {
    MAKER_ERROR("ASSERT: [%s:%u]", file, line);
    s_object.External("TCDebug", __func__, line, "ASSERT: [%s:%u]", file, line);
}
