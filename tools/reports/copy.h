#pragma once
#include <string>

#include "outcome.h"
#include "report.h"

namespace reports {

/// Which files of a report are copied.
enum class What { All, HeaderOnly };

/// Copies the files of a report into the new folder `name` in the folder `to`, each of them and their folders
/// on the disk when this returns. After a problem a part of it may be there.
[[nodiscard]] Outcome CopyReport(int from, const Report& report, What what, int to, const std::string& name);

}  // namespace reports
