#pragma once
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "base/sqlite_handles.h"
#include "vconf/protocol.h"

namespace keystore {

/// What an account has stored.
struct Usage {
    std::int64_t keys = 0;
    std::int64_t bytes = 0;  ///< of names and texts
};

/// A key as it is stored. Never set: VCONF_TYPE_NONE and kNeverChanged.
struct Row {
    Value value;
    std::int64_t change = kNeverChanged;
    uid_t owner = 0;  ///< the account that set it last
};

/// One database of keys, which nobody else has open. Opened, and made, on first use. A damaged one is set
/// aside and a new one begun. A fault is logged once, when it begins.
class KeyDatabase {
public:
    enum class Durability {
        PowerCut,  ///< a value is on the disk when Set has returned
        Process    ///< a value survives this process
    };

    /// @param folder without links, for this account alone
    /// @param oldFolder of a store that earlier versions shared among their users; a new database takes its
    /// keys
    KeyDatabase(const std::string& folder, std::string oldFolder, Durability durability);
    KeyDatabase(const KeyDatabase&) = delete;
    KeyDatabase& operator=(const KeyDatabase&) = delete;

    /// False when the store cannot be read.
    [[nodiscard]] bool Get(std::string_view key, Row* out);
    /// The first key behind this one in the order of their bytes; `next` is empty when there is none. False
    /// when the store cannot be read.
    [[nodiscard]] bool Next(std::string_view key, std::string* next);
    /// Sets the key, or removes it when the value is VCONF_TYPE_NONE, and gives the row its new number. `old`
    /// is what Get said. False when it could not be stored; then the old one stands.
    [[nodiscard]] bool Set(std::string_view key, const Row& old, Row* row);

    /// Of an account; nothing while the store cannot be read.
    [[nodiscard]] Usage UsageOf(uid_t owner);

    /// How often a damaged database gave way to a new one.
    [[nodiscard]] int Replacements() const { return m_replacements; }

private:
    enum Access { READ, WRITE, ACCESS_COUNT };

    template <typename Operation>
    [[nodiscard]] bool Perform(Access access, Operation operation);
    [[nodiscard]] int Open();
    [[nodiscard]] int Make();
    [[nodiscard]] int Connect();
    [[nodiscard]] int Configure();
    [[nodiscard]] int CheckWhole();
    [[nodiscard]] int PrepareAll();
    [[nodiscard]] int Count();
    [[nodiscard]] int ForgetRemovals();
    [[nodiscard]] int SetAside(const std::string& fault);
    int Fail(int code, const std::string& reason);
    void Close();
    void Account(uid_t owner, std::string_view key, const Value& value, int sign);
    bool Judge(Access access, int code);

    const std::string m_path;
    const std::string m_oldFolder;
    const Durability m_durability;

    base::DatabasePtr m_connection;
    std::uint64_t m_deadline = 0;  // steady nanoseconds; what takes longer is interrupted
    base::StatementPtr m_get;
    base::StatementPtr m_next;
    base::StatementPtr m_set;
    std::int64_t m_lastChange = 0;
    std::int64_t m_removals = 0;  // rows of removed keys
    std::map<uid_t, Usage> m_usage;
    int m_replacements = 0;
    bool m_isFaulty[ACCESS_COUNT] = {};
    std::string m_reason;  // of the last failure
};

}  // namespace keystore
