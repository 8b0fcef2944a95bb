#pragma once
#include "options.h"

namespace collector {

/// Prints what is in the spool and what happened to reports. @return the exit status
[[nodiscard]] int PrintStatus(const Options& options);

}  // namespace collector
