#pragma once
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "vconf.h"
#include "vconf/protocol.h"

namespace keystore {

/// Orders the changes of one key: those of a later connection to the service come later.
struct Position {
    std::uint64_t connection = 0;
    std::int64_t number = 0;

    bool Before(const Position& other) const {
        return connection != other.connection ? connection < other.connection : number < other.number;
    }
};

struct Change {
    Position position;
    std::string key;
    Value value;  ///< of type VCONF_TYPE_NONE when the key was removed
};

/// How far the changes of a watched key have come here.
struct Arrived {
    std::int64_t change = 0;    ///< number of the last one
    std::uint32_t pending = 0;  ///< its place among those to be delivered, if it is still there
};

/// Who wants to hear of which key. A change costs one look-up, however many keys are watched. Callbacks run
/// without a lock held. Any thread; Deliver on one thread at a time.
class WatchRegistry {
public:
    WatchRegistry() = default;
    WatchRegistry(const WatchRegistry&) = delete;
    WatchRegistry& operator=(const WatchRegistry&) = delete;

    /// The callback hears of changes after `start` only. The same three again are counted, not called twice.
    /// @param change how far the changes have come when the key was not watched before
    void Add(const std::string& key, vconf_callback_fn callback, void* userData, const Position& start,
             std::int64_t change);

    /// Takes one registration back; false when there is none. After the last one the callback is not running
    /// and will not run: waits for it, unless called from inside a callback.
    [[nodiscard]] bool Withdraw(const std::string& key, vconf_callback_fn callback, void* userData);

    /// True when somebody watches the key.
    [[nodiscard]] bool Has(const std::string& key);
    [[nodiscard]] bool IsEmpty();
    /// The first watched key behind another one ("" is before all), and its last change.
    [[nodiscard]] std::optional<std::pair<std::string, std::int64_t>> Next(const std::string& key);
    /// Lets `update` see and set how far a key is, under the lock. False when nobody watches it.
    [[nodiscard]] bool Update(const std::string& key, const std::function<void(Arrived*)>& update);

    /// Calls those who watch the key of this change.
    void Deliver(const Change& change);

private:
    struct Registration {
        vconf_callback_fn callback;
        void* userData;
        Position start;
        int count;
        std::uint32_t id;  // above 0
        Arrived arrived;   // of the key; the first registration of each has it
    };
    /// Those of one key stand in the order in which they came.
    using Watches = std::multimap<std::string, Registration, std::less<>>;

    /// The end when there is none. Under m_mutex.
    template <typename Matches>
    Watches::iterator Find(const std::string& key, Matches matches);
    void Call(std::uint32_t id, keynode_t& node, const Position& position);

    std::mutex m_mutex;  // guards everything below
    std::condition_variable m_returned;
    Watches m_watches;
    std::uint32_t m_lastId = 0;
    std::uint32_t m_running = 0;  // whose callback is being called
    std::thread::id m_runner;
};

}  // namespace keystore
