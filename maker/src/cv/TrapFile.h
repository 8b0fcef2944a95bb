#pragma once
/// The file of trap conditions.
#include <vector>

#include "cv/TSTrap.h"

namespace cv {

/// The conditions in ZOL_PATH_TRAP_CONF, grouped by call site; a missing file is an empty one. Lines that
/// make no sense are logged with their number and skipped. @return how many there are; -1, with a line in the
/// platform log, when the file cannot be read.
int LoadTraps(std::vector<TSTrapCondition>& conditions);

}  // namespace cv
