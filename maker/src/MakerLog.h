#pragma once
/// The maker's own diagnostics on the platform log.
#include "dlog.h"

#define MAKER_LOG(priority, ...) dlog_emit(DLOG_BUFFER_MAIN, priority, "ZOLMAKER", __VA_ARGS__)
#define MAKER_ERROR(...) MAKER_LOG(DLOG_PRIORITY_ERROR, __VA_ARGS__)
