#include "Log.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "TCDebug.h"

namespace zol {
namespace {

// What the platform log takes of a line, the ending zero included.
constexpr std::size_t kMaxMessage = 4096;
constexpr const char* kTag = "ZOL";

struct BaseName {
    const char* begin;
    int length;
};

BaseName SourceName(const char* path) {
    const char* slash = std::strrchr(path, '/');
    const char* begin = slash != nullptr ? slash + 1 : path;
    const char* dot = std::strrchr(begin, '.');
    return {begin,
            static_cast<int>(dot != nullptr ? static_cast<std::size_t>(dot - begin) : std::strlen(begin))};
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

    const BaseName source = SourceName(file);
    dlog_emit(DLOG_BUFFER_SYSTEM, priority, kTag, "%.*s: %s(%d) > %s", source.length, source.begin, function,
              line, message.data());
    if (TCDebug::m_instance->OutputEnabled()) {
        TCDebug::m_instance->External(module, function, static_cast<unsigned>(line), "%s", message.data());
    }
}

}  // namespace zol
