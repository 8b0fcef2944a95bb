#pragma once
#include "dlog.h"

/// Diagnostics of the Linux platform itself: main buffer, tag "ZOLPLATFORM".
#define PLATFORM_LOG(priority, ...) \
    dlog_emit(DLOG_BUFFER_MAIN, DLOG_PRIORITY_##priority, "ZOLPLATFORM", __VA_ARGS__)
