#include "Log.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string_view>

#include "TCDebug.h"

namespace zol {
namespace {

// What the platform log takes of a line, the ending zero included.
constexpr std::size_t kMaxMessage = 4096;
constexpr const char* kTag = "ZOL";

/// Without folder and ending.
std::string_view SourceName(std::string_view path) {
    path.remove_prefix(path.rfind('/') + 1);  // 0 when there is no folder
    return path.substr(0, path.rfind('.'));
}

}  // namespace

void WriteLog(ELogPriority priority, const char* module, const char* file, const char* function, int line,
              const char* format, ...) {
    std::array<char, kMaxMessage> message;
    message[0] = '\0';
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message.data(), message.size(), format, arguments);
    va_end(arguments);

    const std::string_view source = SourceName(file);
    dlog_emit(DLOG_BUFFER_SYSTEM, priority, kTag, "%.*s: %s(%d) > %s", static_cast<int>(source.size()),
              source.data(), function, line, message.data());
    if (TCDebug::m_instance->OutputEnabled()) {
        TCDebug::m_instance->External(module, function, static_cast<unsigned>(line), "%s", message.data());
    }
}

}  // namespace zol
