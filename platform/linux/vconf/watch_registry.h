#pragma once
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "vconf.h"
#include "vconf/key_database.h"

namespace keystore {

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
