#pragma once
/// Owners of SQLite's handles. Header only: who includes it links SQLite.
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "base/handles.h"

namespace base {

using DatabasePtr = std::unique_ptr<sqlite3, FreeWith<sqlite3_close_v2>>;
using StatementPtr = std::unique_ptr<sqlite3_stmt, FreeWith<sqlite3_finalize>>;

/// Null when the text cannot be prepared; sqlite3_errcode tells why.
[[nodiscard]] inline StatementPtr Prepare(sqlite3* database, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, sql, -1, &statement, nullptr);
    return StatementPtr(statement);
}

/// One run of a prepared statement, which is ready for the next run when this goes out of scope. What is
/// bound must live until then. Parameters count from 1, columns from 0. Of a null statement the step fails.
class Run {
public:
    explicit Run(const StatementPtr& statement) : m_statement(statement.get()) {}
    ~Run() {
        sqlite3_reset(m_statement);
        if (m_statement != nullptr) {
            sqlite3_clear_bindings(m_statement);
        }
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void Bind(int parameter, std::string_view text) {
        // SQLite takes a null pointer for NULL, which an empty view may hold.
        const char* const data = text.data() != nullptr ? text.data() : "";
        sqlite3_bind_text64(m_statement, parameter, data, text.size(), SQLITE_STATIC, SQLITE_UTF8);
    }
    void Bind(int parameter, std::int64_t number) { sqlite3_bind_int64(m_statement, parameter, number); }

    /// SQLITE_ROW, SQLITE_DONE or an error code.
    [[nodiscard]] int Step() { return sqlite3_step(m_statement); }

    [[nodiscard]] std::int64_t Number(int column) const { return sqlite3_column_int64(m_statement, column); }
    /// Valid until the next step.
    [[nodiscard]] std::string_view Text(int column) const {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_statement, column));
        const int size = sqlite3_column_bytes(m_statement, column);
        return text != nullptr ? std::string_view(text, static_cast<std::size_t>(size)) : std::string_view();
    }

private:
    sqlite3_stmt* m_statement;
};

}  // namespace base
