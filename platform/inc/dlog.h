#pragma once
/// The platform log.
#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Log buffers.
enum dlog_buffer { DLOG_BUFFER_MAIN = 0, DLOG_BUFFER_RADIO = 1, DLOG_BUFFER_SYSTEM = 2 };

/// Priorities, with their letters: V D I W E F.
enum dlog_priority {
    DLOG_PRIORITY_VERBOSE = 2,
    DLOG_PRIORITY_DEBUG = 3,
    DLOG_PRIORITY_INFO = 4,
    DLOG_PRIORITY_WARN = 5,
    DLOG_PRIORITY_ERROR = 6,
    DLOG_PRIORITY_FATAL = 7
};

/// Writes one line. Any thread. Never fails visibly, never throws. Lines longer than 4095 bytes are cut.
void dlog_emit(int buffer, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// The same with the arguments in a list.
void dlog_vemit(int buffer, int priority, const char* tag, const char* format, va_list arguments)
    __attribute__((format(printf, 4, 0)));

#ifdef __cplusplus
}
#endif
