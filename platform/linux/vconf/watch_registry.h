#pragma once
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

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

/// Who wants to hear of which key. A change costs one look-up, however many keys are watched. Callbacks run
/// without a lock held. Any thread; Deliver on one thread at a time.
class WatchRegistry {
public:
    WatchRegistry() = default;
    WatchRegistry(const WatchRegistry&) = delete;
    WatchRegistry& operator=(const WatchRegistry&) = delete;

    /// The callback hears of changes after `start` only. The same three again are counted, not called twice.
    void Add(const std::string& key, vconf_callback_fn callback, void* userData, const Position& start);

    /// Takes one registration back; false when there is none. After the last one the callback is not running
    /// and will not run: waits for it, unless called from inside a callback.
    [[nodiscard]] bool Withdraw(const std::string& key, vconf_callback_fn callback, void* userData);

    /// True when somebody watches the key.
    [[nodiscard]] bool Has(const std::string& key);

    /// Calls those who watch the key of this change.
    void Deliver(const Change& change);

private:
    struct Registration {
        vconf_callback_fn callback;
        void* userData;
        Position start;
        int count;  // 0 when it has been withdrawn
    };
    using RegistrationPtr = std::shared_ptr<Registration>;

    void Call(Registration& registration, keynode_t& node, const Position& position);

    std::mutex m_mutex;  // guards everything below and the registrations
    std::condition_variable m_returned;
    std::unordered_map<std::string, std::vector<RegistrationPtr>> m_watches;
    const Registration* m_running = nullptr;  // whose callback is being called
    std::thread::id m_runner;
};

}  // namespace keystore
