#include "device_power.h"

#include <algorithm>
#include <atomic>
#include <list>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include "context_thread.h"
#include "device_power/logind_monitor.h"
#include "guarded.h"

struct device_power_hold_s {
    platform::PowerDelay delay;
};

namespace platform {

namespace {

/// The delay that the power-off callback running on this thread may hold.
thread_local const PowerDelay* t_delay = nullptr;

enum class PowerEvent { PowerOff, WakeUp };

/// One subscriber: its events wait here until its own context runs the callback. Made and destroyed on the
/// subscribing thread.
class Subscriber {
public:
    Subscriber(PowerEvent event, device_power_callback_fn callback, void* userData)
        : m_event(event),
          m_callback(callback),
          m_context(g_main_context_ref_thread_default()),
          m_userData(userData),
          m_waiting(m_context.get(), "wake-up") {}

    bool Is(PowerEvent event, device_power_callback_fn callback) const {
        return m_event == event && m_callback == callback;
    }
    bool DeliversOn(GMainContext* context) const { return m_context.get() == context; }
    void SetUserData(void* userData) { m_userData = userData; }
    /// Any thread.
    void Deliver(PowerEvent event, int reason, const PowerDelay& delay) {
        if (event != m_event) {
            return;
        }
        // The delay is let go with this function, after the callback has run.
        m_waiting.Post([this, reason, delay] {
            const PowerDelay* const outer = std::exchange(t_delay, &delay);
            m_callback(reason, m_userData);
            t_delay = outer;
        });
    }

private:
    const PowerEvent m_event;
    const device_power_callback_fn m_callback;
    const base::GMainContextPtr m_context;
    std::atomic<void*> m_userData;
    WorkQueue m_waiting;
};

/// The subscribers and the thread that listens to logind while there are any.
class PowerService {
public:
    int Subscribe(PowerEvent event, device_power_callback_fn callback, void* userData) {
        if (callback == nullptr) {
            return -1;
        }
        const base::GMainContextPtr context(g_main_context_ref_thread_default());
        const std::lock_guard<std::mutex> life(m_life);
        if (const auto known = Find(event, callback); known != m_subscribers.end()) {
            if (!known->DeliversOn(context.get())) {
                return -1;
            }
            known->SetUserData(userData);
            return 0;
        }
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_subscribers.emplace_back(event, callback, userData);
        }
        if (m_thread.Start([this] { Begin(); }, [this] { m_monitor.reset(); })) {
            return 0;
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_subscribers.pop_back();
        return -1;
    }

    int Unsubscribe(PowerEvent event, device_power_callback_fn callback) {
        const std::lock_guard<std::mutex> life(m_life);
        const auto known = Find(event, callback);
        if (known == m_subscribers.end()) {
            return -1;
        }
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_subscribers.erase(known);
        }
        if (m_subscribers.empty()) {
            m_thread.Stop();
        }
        return 0;
    }

private:
    void Begin() {
        m_monitor.emplace(LogindMonitor::Handlers{
            [this](int reason, const PowerDelay& delay) { Deliver(PowerEvent::PowerOff, reason, delay); },
            [this](int reason) { Deliver(PowerEvent::WakeUp, reason, nullptr); }});
    }

    void Deliver(PowerEvent event, int reason, const PowerDelay& delay) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (Subscriber& subscriber : m_subscribers) {
            subscriber.Deliver(event, reason, delay);
        }
    }

    /// Under m_life.
    std::list<Subscriber>::iterator Find(PowerEvent event, device_power_callback_fn callback) {
        return std::find_if(m_subscribers.begin(), m_subscribers.end(),
                            [&](const Subscriber& subscriber) { return subscriber.Is(event, callback); });
    }

    std::mutex m_life;   ///< subscriptions change one at a time
    std::mutex m_mutex;  ///< guards the list, together with m_life for changes
    std::list<Subscriber> m_subscribers;
    std::optional<LogindMonitor> m_monitor;  ///< lives on the thread
    ContextThread m_thread{"zol-power"};
};

/// Never destroyed: a subscriber that did not leave may still be told while the process ends.
PowerService& Service() {
    static auto* const service = new PowerService;
    return *service;
}

}  // namespace

}  // namespace platform

extern "C" {

int device_power_subscribe_poweroff(device_power_callback_fn callback, void* user_data) {
    return platform::GuardedCall("power notifications", [&] {
        return platform::Service().Subscribe(platform::PowerEvent::PowerOff, callback, user_data);
    });
}

int device_power_subscribe_wakeup(device_power_callback_fn callback, void* user_data) {
    return platform::GuardedCall("power notifications", [&] {
        return platform::Service().Subscribe(platform::PowerEvent::WakeUp, callback, user_data);
    });
}

int device_power_unsubscribe_poweroff(device_power_callback_fn callback) {
    return platform::GuardedCall("power notifications", [&] {
        return platform::Service().Unsubscribe(platform::PowerEvent::PowerOff, callback);
    });
}

int device_power_unsubscribe_wakeup(device_power_callback_fn callback) {
    return platform::GuardedCall("power notifications", [&] {
        return platform::Service().Unsubscribe(platform::PowerEvent::WakeUp, callback);
    });
}

device_power_hold_t* device_power_hold(void) {
    const platform::PowerDelay* const delay = platform::t_delay;
    return delay != nullptr && *delay != nullptr ? new (std::nothrow) device_power_hold_s{*delay} : nullptr;
}

void device_power_release(device_power_hold_t* hold) {
    delete hold;
}
}
