#pragma once
#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string_view>

namespace keystore {

struct CloseConnection {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
};
using ConnectionPtr = std::unique_ptr<sqlite3, CloseConnection>;

struct FinalizeStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using StatementPtr = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

/// Null when the text cannot be prepared; sqlite3_errcode tells why.
inline StatementPtr Prepare(sqlite3* connection, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v3(connection, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    return StatementPtr(statement);
}

/// One run of a prepared statement, which is ready for the next run when this goes out of scope. What is
/// bound must live until then. Parameters count from 1, columns from 0.
class Run {
public:
    explicit Run(const StatementPtr& statement) : m_statement(statement.get()) {}
    ~Run() {
        sqlite3_reset(m_statement);
        sqlite3_clear_bindings(m_statement);
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void Bind(int parameter, std::string_view text) {
        sqlite3_bind_text(m_statement, parameter, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    }
    void Bind(int parameter, std::int64_t number) { sqlite3_bind_int64(m_statement, parameter, number); }

    /// SQLITE_ROW, SQLITE_DONE or an error code.
    int Step() { return sqlite3_step(m_statement); }

    std::int64_t Number(int column) { return sqlite3_column_int64(m_statement, column); }
    /// Valid until the next step.
    std::string_view Text(int column) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_statement, column));
        return text == nullptr
                   ? std::string_view()
                   : std::string_view(text,
                                      static_cast<std::size_t>(sqlite3_column_bytes(m_statement, column)));
    }

private:
    sqlite3_stmt* m_statement;
};

}  // namespace keystore
