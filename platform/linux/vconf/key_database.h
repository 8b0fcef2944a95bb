#pragma once
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/sqlite_handles.h"
#include "vconf/store_files.h"

namespace keystore {

/// What a key holds. `type` is an enum vconf_type; VCONF_TYPE_NONE means that there is no such key.
struct Value {
    int type = 0;
    int number = 0;    ///< value of an int or bool key
    std::string text;  ///< value of a string key
};

/// A point in the history of a store. Numbers grow within a generation; a database that takes the place of
/// another one begins a new generation, and its numbers anew.
struct Position {
    std::uint64_t generation = 0;
    std::int64_t number = 0;

    bool Before(const Position& other) const {
        return generation != other.generation ? generation < other.generation : number < other.number;
    }
};

struct Change {
    Position position;
    std::string key;
    Value value;  ///< of type VCONF_TYPE_NONE when the key was removed
};

/// One database of keys, shared with every process that has the same folder open. Opened on first use and
/// opened anew when its file is no longer the one under its name. A damaged database is set aside and a new
/// one begun. A fault is logged once, when it begins; while it lasts, operations wait little for locks.
/// Any thread: operations of one object take turns.
class KeyDatabase {
public:
    enum class Durability {
        PowerCut,  ///< a value is on the disk when Set has returned
        Process    ///< a value survives this process
    };

    KeyDatabase(std::string folder, Durability durability);
    KeyDatabase(const KeyDatabase&) = delete;
    KeyDatabase& operator=(const KeyDatabase&) = delete;

    const StoreFiles& Files() const { return m_files; }

    /// True when the key is there; else errno tells why not, as vconf.h has it. Makes and writes nothing.
    [[nodiscard]] bool Get(std::string_view key, Value* out);
    /// False with errno when the value could not be stored; then the old one stands.
    [[nodiscard]] bool Set(std::string_view key, const Value& value);
    /// True when the key is gone, also when there was none.
    [[nodiscard]] bool Remove(std::string_view key);

    /// Where the history ends now. Makes the store when it is missing. False when it cannot be read.
    [[nodiscard]] bool End(Position* out);
    /// Appends the changes after `*position`, oldest first, kMaxChanges at most, and moves `*position`
    /// behind them. Of several changes of a key only the last is there. False when the store cannot be
    /// read now: try later.
    [[nodiscard]] bool ReadChanges(Position* position, std::vector<Change>* out);
    static constexpr int kMaxChanges = 256;

private:
    enum Access { READ, WRITE, ACCESS_COUNT };

    template <typename Operation>
    [[nodiscard]] bool Perform(Access access, Operation operation);
    [[nodiscard]] int Open(Access access);
    [[nodiscard]] int OpenExisting();
    [[nodiscard]] int Connect();
    [[nodiscard]] int Configure();
    [[nodiscard]] int CheckWhole();
    [[nodiscard]] int PrepareAll();
    [[nodiscard]] int Create();
    [[nodiscard]] int BuildNew();
    [[nodiscard]] int ReplaceDamaged();
    [[nodiscard]] int SetAside(const std::string& fault);
    int Fail(int code, const std::string& reason);
    void Close();
    bool IsFinal(Access access, int code) const;
    bool Replaced() const;
    int PatienceMs(Access access) const;
    bool Judge(Access access, int code);

    const StoreFiles m_files;
    const Durability m_durability;

    std::mutex m_mutex;  // guards everything below
    base::DatabasePtr m_connection;
    base::StatementPtr m_get;
    base::StatementPtr m_set;
    base::StatementPtr m_remove;
    base::StatementPtr m_end;
    base::StatementPtr m_changes;
    std::optional<FileIdentity> m_identity;  // of the file that the connection has open
    std::uint64_t m_generation = 0;
    bool m_faulty[ACCESS_COUNT] = {};
    std::string m_reason;   // of the last failure
    bool m_denied = false;  // the last failure was one of permission
};

}  // namespace keystore
