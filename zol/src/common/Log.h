#pragma once
/// The application log: the platform log's system buffer under the tag "ZOL", and the maker's debug channel
/// when one of its outputs is on.
///
/// A source that logs defines `constexpr const char* kLogModule` (its class name as the debug channel shows
/// it) in an unnamed namespace before it uses ZOL_LOG.
#include "dlog.h"

namespace zol {

/// Priorities of the application log. Progress that must always reach the log goes out as LOG_ERROR.
enum ELogPriority {
    LOG_DEBUG = DLOG_PRIORITY_DEBUG,
    LOG_INFO = DLOG_PRIORITY_INFO,
    LOG_ERROR = DLOG_PRIORITY_ERROR
};

/// Writes one line; use ZOL_LOG. Any thread. Allocates nothing; the platform log cuts the whole line at 4095
/// bytes, the debug channel as TCDebug says.
/// @param file source path; folder and ending are left out of the line
void WriteLog(ELogPriority priority, const char* module, const char* file, const char* function, int line,
              const char* format, ...) __attribute__((format(printf, 6, 7)));

}  // namespace zol

#define ZOL_LOG(priority, ...) \
    ::zol::WriteLog(::zol::priority, kLogModule, __FILE__, __func__, __LINE__, __VA_ARGS__)
