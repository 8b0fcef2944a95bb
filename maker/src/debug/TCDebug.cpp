#include "TCDebug.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "FileDescriptor.h"
#include "MakerLog.h"
#include "TSFileSystem.h"
#include "device_path.h"
#include "device_paths.h"
#include "platform_clock.h"

namespace {

constexpr std::size_t kMaxLine = 2304;       // bytes, the line feed included
constexpr off_t kMaxFileSize = 512L * 1024;  // bytes; with the file kept aside 1 MiB
constexpr mode_t kFileMode = 0640;
constexpr const char* kOldSuffix = ".1";
constexpr std::size_t kMaxPath = 4096;

/// The lines are built here rather than on the stack: the runtime's threads have small ones.
struct Line {
    char text[kMaxLine];
    std::size_t length;
};

/// The log file. Its user locks.
class LogFile {
public:
    void Write(const Line& line) {
        if (!m_file && !Open()) {
            return;
        }
        if (m_size + static_cast<off_t>(line.length) > kMaxFileSize && !Rotate()) {
            return;
        }
        const ssize_t written = write(m_file.Get(), line.text, line.length);
        m_size += std::max<ssize_t>(written, 0);
    }

    void Close() {
        m_file.Reset();
        m_failed = false;
    }

private:
    bool Open() {
        if (m_failed) {
            return false;
        }
        m_failed = true;
        char path[kMaxPath];
        if (device_path_map(ZOL_PATH_DEBUG_LOG, path, sizeof(path)) == 0 ||
            !TSFileSystem::MakeDir(ZOL_PATH_LOG_DIR, true)) {
            return false;
        }
        // Without O_NONBLOCK a pipe put in the file's place would hang every thread that logs.
        maker::FileDescriptor file(
            open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kFileMode));
        struct stat status {};
        if (!file || fstat(file.Get(), &status) != 0) {
            MAKER_ERROR("cannot open the debug log %s: errno %d", ZOL_PATH_DEBUG_LOG, errno);
            return false;
        }
        if (!S_ISREG(status.st_mode)) {
            MAKER_ERROR("the debug log %s is not a regular file", ZOL_PATH_DEBUG_LOG);
            return false;
        }
        m_file = std::move(file);
        m_size = status.st_size;
        m_failed = false;
        return true;
    }

    bool Rotate() {
        char path[kMaxPath];
        char old[kMaxPath];
        device_path_map(ZOL_PATH_DEBUG_LOG, path, sizeof(path));
        const int length = std::snprintf(old, sizeof(old), "%s%s", path, kOldSuffix);
        m_file.Reset();
        if (length >= static_cast<int>(sizeof(old)) || rename(path, old) != 0) {
            MAKER_ERROR("cannot set the full debug log %s aside: errno %d", ZOL_PATH_DEBUG_LOG, errno);
            m_failed = true;
            return false;
        }
        return Open();
    }

    maker::FileDescriptor m_file;
    off_t m_size = 0;
    bool m_failed = false;
};

std::mutex g_mutex;  // guards the two below
Line g_line;
LogFile& TheFile() {
    // Never freed: lines may come from static destructors.
    static auto* file = new LogFile;
    return *file;
}

__attribute__((format(printf, 2, 0))) void AppendV(Line& line, const char* format, va_list arguments) {
    const std::size_t room = sizeof(line.text) - line.length;
    const int added = std::vsnprintf(line.text + line.length, room, format, arguments);
    if (added > 0) {
        line.length += std::min(static_cast<std::size_t>(added), room - 1);
    }
}

__attribute__((format(printf, 2, 3))) void Append(Line& line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    AppendV(line, format, arguments);
    va_end(arguments);
}

void AppendNow(Line& line) {
    platform_time_t now{};
    tm local{};
    platform_clock_realtime(&now);
    const auto seconds = static_cast<time_t>(now.seconds);
    localtime_r(&seconds, &local);
    line.length += std::strftime(line.text, sizeof(line.text), "%Y-%m-%d %H:%M:%S", &local);
    Append(line, ".%03d", static_cast<int>(now.nanoseconds / 1000000));
}

/// One message is one line, whatever it holds.
void Terminate(Line& line) {
    while (line.length > 0 && line.text[line.length - 1] == '\n') {
        --line.length;
    }
    std::replace_if(
        line.text, line.text + line.length,
        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, ' ');
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
    Append(g_line, " %s %s(%u) ", className, function, line);
    AppendV(g_line, format, arguments);
    Terminate(g_line);
    if (m_fileLog.load(std::memory_order_relaxed)) {
        TheFile().Write(g_line);
    }
    if (m_consoleLog.load(std::memory_order_relaxed)) {
        // Nobody can be told when standard error is gone.
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, g_line.text, g_line.length);
    }
}

void TCDebug::EnableFileLog(bool on) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    TheFile().Close();
    s_object.m_fileLog.store(on, std::memory_order_relaxed);
}

void TCDebug::EnableConsoleLog(bool on) {
    s_object.m_consoleLog.store(on, std::memory_order_relaxed);
}

void TCDebug::Assert(const char* file, unsigned line) {
    MAKER_ERROR("ASSERT: [%s:%u]", file, line);
    s_object.External("TCDebug", __func__, line, "ASSERT: [%s:%u]", file, line);
}
