#pragma once
/// Owners of the SQLite handles.
#include <sqlite3.h>

#include <memory>

namespace maker {

struct CloseDatabase {
    void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
};
using DatabasePtr = std::unique_ptr<sqlite3, CloseDatabase>;

struct FinalizeStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using StatementPtr = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

}  // namespace maker
