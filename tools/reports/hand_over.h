#pragma once
/// The collector's end of the hand-over.
#include <functional>
#include <string>

#include "base/subscription.h"
#include "outcome.h"
#include "report_root.h"
#include "vconf.h"

namespace reports {

/// vconf string key: device path of the folder that waits for the collector, empty when none does.
constexpr const char* kHandOverKey = "db/zol/send_zol_files_path";

/// Reads the key. False with errno when it cannot be read; a key that was never set is empty.
[[nodiscard]] bool ReadPublished(std::string& path);

/// Empties the key, if it still holds `path`: the daemon may have taken that back and published another one.
/// False with errno when it cannot be read or written.
[[nodiscard]] bool EmptyKey(const std::string& path);

/// Calls `callback` after each change of the key for as long as the result lives, which is false, with errno,
/// when the store refuses. Read the key only then: what was published before is not told.
[[nodiscard]] base::Subscription WatchKey(vconf_callback_fn callback, void* userData);

/// Takes the report at a published path and empties the key when `take` has succeeded. Empties it, too, when
/// there is nothing to take or what is there is none, for others wait behind it; any other problem leaves it,
/// for another attempt.
using Take = std::function<Outcome(const ReportRoot& root, const std::string& name)>;
[[nodiscard]] Outcome TakePublished(const std::string& path, const Take& take);

/// Why the key store refused, and what to do: for a line of output.
[[nodiscard]] std::string StoreError(int error);

}  // namespace reports
