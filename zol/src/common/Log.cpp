#include "Log.h"

#include <array>
#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string_view>

#include "TCDebug.h"

namespace zol {
namespace {

// What the platform log takes of a line, the ending zero included.
constexpr std::size_t kMaxMessage = 4096;
// Source, function and line.
constexpr std::size_t kMaxPlace = 1024;
constexpr const char* kTag = "ZOL";

/// Without folder and ending.
std::string_view SourceName(std::string_view path) {
    path.remove_prefix(path.rfind('/') + 1);  // 0 when there is no folder
    return path.substr(0, path.rfind('.'));
}

/// "source: function(line) > " without the ending zero, into kMaxPlace bytes.
/// @return where the message begins
char* WritePlace(char* out, const char* file, const char* function, int line) {
    constexpr std::size_t kMaxName = kMaxPlace / 2 - 16;
    out += SourceName(file).copy(out, kMaxName);
    out += std::string_view(": ").copy(out, 2);
    out += std::string_view(function).copy(out, kMaxName);
    *out++ = '(';
    out = std::to_chars(out, out + 11, line).ptr;
    return out + std::string_view(") > ").copy(out, 4);
}

}  // namespace

void WriteLog(ELogPriority priority, const char* module, const char* file, const char* function, int line,
              const char* format, ...) {
    std::array<char, kMaxMessage> text;
    // Once for both.
    char* const message = WritePlace(text.data(), file, function, line);
    message[0] = '\0';
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, static_cast<std::size_t>(text.data() + text.size() - message), format, arguments);
    va_end(arguments);
    dlog_emit(DLOG_BUFFER_SYSTEM, priority, kTag, "%s", text.data());
    if (TCDebug::m_instance->OutputEnabled()) {
        TCDebug::m_instance->External(module, function, static_cast<unsigned>(line), "%s", message);
    }
}

}  // namespace zol
