#pragma once
/// The file of trap conditions.
#include <string_view>
#include <vector>

#include "cv/TSTrap.h"

namespace cv {

/// The conditions in a text, grouped by call site. Lines that make no sense are logged with their number and
/// skipped. @return how many there are.
int ParseTraps(std::string_view text, std::vector<TSTrapCondition>& conditions);

/// ParseTraps of ZOL_PATH_TRAP_CONF; a missing file is an empty one. -1, with a line in the platform log,
/// when it cannot be read.
int LoadTraps(std::vector<TSTrapCondition>& conditions);

}  // namespace cv
