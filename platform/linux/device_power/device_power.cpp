#include "device_power.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "context_thread.h"
#include "device_power/logind_monitor.h"

struct device_power_hold_s {
    platform::PowerDelay delay;
};

namespace platform {

namespace {

/// The delay that the power-off callback running on this thread may hold.
thread_local const PowerDelay* t_delay = nullptr;

enum class PowerEvent { PowerOff, WakeUp };

/// One subscriber: its events wait here until its own context runs the callback.
class Subscriber : public std::enable_shared_from_this<Subscriber> {
public:
    Subscriber(PowerEvent event, device_power_callback_fn callback, void* userData)
        : m_event(event),
          m_callback(callback),
          m_context(g_main_context_ref_thread_default()),
          m_userData(userData) {}

    /// On the subscribing thread, like Leave.
    void Join() {
        m_wake = std::make_unique<WakeSource>(m_context.get(), [weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                self->RunWaiting();
            }
        });
    }
    void Leave() {
        m_wake.reset();
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_left = true;
        m_waiting.clear();
    }

    bool Is(PowerEvent event, device_power_callback_fn callback) const {
        return m_event == event && m_callback == callback;
    }
    bool DeliversOn(GMainContext* context) const { return m_context.get() == context; }
    void SetUserData(void* userData) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_userData = userData;
    }
    /// Any thread, while it has joined.
    void Deliver(PowerEvent event, int reason, const PowerDelay& delay) {
        if (event != m_event) {
            return;
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_waiting.push_back({reason, delay});
        m_wake->Wake();
    }

private:
    struct Waiting {
        int reason;
        PowerDelay delay;  ///< let go after the callback has run
    };

    void RunWaiting() {
        for (;;) {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (m_left || m_waiting.empty()) {
                return;
            }
            const Waiting next = std::move(m_waiting.front());
            m_waiting.pop_front();
            void* const userData = m_userData;
            lock.unlock();
            const PowerDelay* const outer = std::exchange(t_delay, &next.delay);
            m_callback(next.reason, userData);
            t_delay = outer;
        }
    }

    const PowerEvent m_event;
    const device_power_callback_fn m_callback;
    const base::GMainContextPtr m_context;
    std::unique_ptr<WakeSource> m_wake;
    std::mutex m_mutex;  ///< guards what follows
    void* m_userData;
    bool m_left = false;
    std::deque<Waiting> m_waiting;
};

/// The subscribers and the thread that listens to logind while there are any.
class PowerService {
public:
    int Subscribe(PowerEvent event, device_power_callback_fn callback, void* userData) {
        const base::GMainContextPtr context(g_main_context_ref_thread_default());
        const std::lock_guard<std::mutex> life(m_life);
        if (const auto known = Find(event, callback); known != nullptr) {
            if (!known->DeliversOn(context.get())) {
                return -1;
            }
            known->SetUserData(userData);
            return 0;
        }
        const auto subscriber = std::make_shared<Subscriber>(event, callback, userData);
        subscriber->Join();
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_subscribers.push_back(subscriber);
        }
        if (m_thread.Start([this] { Begin(); }, [this] { m_monitor.reset(); })) {
            return 0;
        }
        Remove(subscriber);
        return -1;
    }

    int Unsubscribe(PowerEvent event, device_power_callback_fn callback) {
        const std::lock_guard<std::mutex> life(m_life);
        const auto known = Find(event, callback);
        if (known == nullptr) {
            return -1;
        }
        if (Remove(known)) {
            m_thread.Stop();
        }
        return 0;
    }

private:
    using SubscriberPtr = std::shared_ptr<Subscriber>;

    void Begin() {
        m_monitor.emplace(LogindMonitor::Handlers{
            [this](int reason, const PowerDelay& delay) { Deliver(PowerEvent::PowerOff, reason, delay); },
            [this](int reason) { Deliver(PowerEvent::WakeUp, reason, nullptr); }});
    }

    void Deliver(PowerEvent event, int reason, const PowerDelay& delay) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (const SubscriberPtr& subscriber : m_subscribers) {
            subscriber->Deliver(event, reason, delay);
        }
    }

    SubscriberPtr Find(PowerEvent event, device_power_callback_fn callback) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found =
            std::find_if(m_subscribers.begin(), m_subscribers.end(),
                         [&](const SubscriberPtr& subscriber) { return subscriber->Is(event, callback); });
        return found != m_subscribers.end() ? *found : nullptr;
    }

    /// True when nobody is left.
    bool Remove(const SubscriberPtr& subscriber) {
        bool empty = false;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_subscribers.erase(std::find(m_subscribers.begin(), m_subscribers.end(), subscriber));
            empty = m_subscribers.empty();
        }
        subscriber->Leave();
        return empty;
    }

    std::mutex m_life;   ///< subscriptions change one at a time
    std::mutex m_mutex;  ///< guards the list
    std::vector<SubscriberPtr> m_subscribers;
    std::optional<LogindMonitor> m_monitor;  ///< lives on the thread
    ContextThread m_thread{"zol-power"};
};

/// Never destroyed: a subscriber that did not leave may still be told while the process ends.
PowerService& Service() {
    static auto* const service = new PowerService;
    return *service;
}

int Subscribe(PowerEvent event, device_power_callback_fn callback, void* userData) {
    return callback != nullptr ? Service().Subscribe(event, callback, userData) : -1;
}

}  // namespace

}  // namespace platform

extern "C" {

int device_power_subscribe_poweroff(device_power_callback_fn callback, void* user_data) {
    return platform::Subscribe(platform::PowerEvent::PowerOff, callback, user_data);
}

int device_power_subscribe_wakeup(device_power_callback_fn callback, void* user_data) {
    return platform::Subscribe(platform::PowerEvent::WakeUp, callback, user_data);
}

int device_power_unsubscribe_poweroff(device_power_callback_fn callback) {
    return platform::Service().Unsubscribe(platform::PowerEvent::PowerOff, callback);
}

int device_power_unsubscribe_wakeup(device_power_callback_fn callback) {
    return platform::Service().Unsubscribe(platform::PowerEvent::WakeUp, callback);
}

device_power_hold_t* device_power_hold(void) {
    const platform::PowerDelay* const delay = platform::t_delay;
    return delay != nullptr && *delay != nullptr ? new (std::nothrow) device_power_hold_s{*delay} : nullptr;
}

void device_power_release(device_power_hold_t* hold) {
    delete hold;
}
}
