#pragma once
/// Shared between the sources of the fakes only.
#include "fake_dlog.h"
#include "fakes.h"

namespace fakes {
void ResetBtHid();
void ResetClock();
void ResetDiagnostics();
void ResetDevicePower();
void ResetPlatformServices();
void ResetRuntimeInfo();
void ResetServiceWatchdog();
void ResetVconf();
void ResetWas();
}  // namespace fakes
