#pragma once
#include <cstdint>
#include <string>

#include "base/sqlite_handles.h"

namespace keystore {

/// Opens a database in which nothing but plain tables is of use: no triggers, views, links, extensions,
/// memory maps, nor rows beyond 2 MiB. Nobody else can open it meanwhile. Null when that fails; `reason` says
/// why.
/// @param deadline on the steady clock, in nanoseconds: operations that take longer are interrupted. Outlives
/// it
[[nodiscard]] base::DatabasePtr OpenHardened(const std::string& path, int flags,
                                             const std::uint64_t* deadline, std::string* reason);

/// The definitions of all that a database holds, one a line.
[[nodiscard]] std::string SchemaOf(sqlite3* database);

/// Runs statements without parameters and results. SQLITE_OK or an error code.
[[nodiscard]] int Execute(const base::DatabasePtr& database, const char* sql);

}  // namespace keystore
