#include "fake_device_power.h"

#include <glib.h>

#include <chrono>
#include <condition_variable>
#include <list>
#include <map>
#include <mutex>

#include "base/glib_handles.h"
#include "device_power.h"
#include "fake_internal.h"

struct device_power_hold_s {};

namespace fakes {
namespace {

thread_local bool t_isPoweringOff = false;

enum Kind { POWER_OFF, WAKE_UP };

struct Subscription {
    Kind kind;
    device_power_callback_fn callback;
    void* userData;
    base::GMainContextPtr context;
};

struct Delivery {
    Kind kind;
    device_power_callback_fn callback;
    int reason;
};

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::list<Subscription> subscriptions;
    std::map<unsigned, Delivery> deliveries;  ///< not yet returned from, by number
    unsigned nextDelivery = 1;
    std::vector<std::string> calls;
    bool fail = false;
    int holds = 0;
};

State& The() {
    static auto* state = new State;
    return *state;
}

std::list<Subscription>::iterator FindLocked(State& state, Kind kind, device_power_callback_fn callback) {
    auto found = state.subscriptions.begin();
    while (found != state.subscriptions.end() && (found->kind != kind || found->callback != callback)) {
        ++found;
    }
    return found;
}

/// Runs on the subscriber's context. A subscription that went meanwhile is not called any more.
gboolean Deliver(gpointer number) {
    State& state = The();
    const unsigned key = GPOINTER_TO_UINT(number);
    std::unique_lock<std::mutex> lock(state.mutex);
    const auto delivery = state.deliveries.find(key);
    if (delivery != state.deliveries.end()) {
        const Delivery what = delivery->second;
        const auto subscription = FindLocked(state, what.kind, what.callback);
        if (subscription != state.subscriptions.end()) {
            void* userData = subscription->userData;
            lock.unlock();
            t_isPoweringOff = what.kind == POWER_OFF;
            what.callback(what.reason, userData);
            t_isPoweringOff = false;
            lock.lock();
        }
        state.deliveries.erase(key);
        state.changed.notify_all();
    }
    return G_SOURCE_REMOVE;
}

bool Send(Kind kind, int reason) {
    State& state = The();
    std::unique_lock<std::mutex> lock(state.mutex);
    for (const Subscription& subscription : state.subscriptions) {
        if (subscription.kind != kind) {
            continue;
        }
        const unsigned number = state.nextDelivery++;
        state.deliveries[number] = {kind, subscription.callback, reason};
        GSource* source = g_idle_source_new();
        g_source_set_callback(source, Deliver, GUINT_TO_POINTER(number), nullptr);
        g_source_attach(source, subscription.context.get());
        g_source_unref(source);
    }
    return state.changed.wait_for(lock, kPatience, [&state] { return state.deliveries.empty(); });
}

int Subscribe(Kind kind, device_power_callback_fn callback, void* userData, const char* name) {
    State& state = The();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.calls.emplace_back(name);
    if (state.fail) {
        return -1;
    }
    const auto old = FindLocked(state, kind, callback);
    if (old != state.subscriptions.end()) {
        state.subscriptions.erase(old);
    }
    state.subscriptions.push_back(
        {kind, callback, userData, base::GMainContextPtr(g_main_context_ref_thread_default())});
    state.changed.notify_all();
    return 0;
}

int Unsubscribe(Kind kind, device_power_callback_fn callback, const char* name) {
    State& state = The();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.calls.emplace_back(name);
    const auto found = FindLocked(state, kind, callback);
    if (found == state.subscriptions.end()) {
        return -1;
    }
    state.subscriptions.erase(found);
    for (auto delivery = state.deliveries.begin(); delivery != state.deliveries.end();) {
        const bool isLost = delivery->second.kind == kind && delivery->second.callback == callback;
        delivery = isLost ? state.deliveries.erase(delivery) : std::next(delivery);
    }
    state.changed.notify_all();
    return 0;
}

}  // namespace

void ResetDevicePower() {
    State& state = The();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.subscriptions.clear();
    state.deliveries.clear();
    state.calls.clear();
    state.fail = false;
    state.holds = 0;
}

namespace device_power {

bool PowerOff(int reason) {
    return Send(POWER_OFF, reason);
}
bool WakeUp(int reason) {
    return Send(WAKE_UP, reason);
}

bool AwaitSubscribed() {
    State& state = The();
    std::unique_lock<std::mutex> lock(state.mutex);
    return state.changed.wait_for(lock, kPatience, [&state] { return state.subscriptions.size() >= 2; });
}

std::vector<std::string> Calls() {
    const std::lock_guard<std::mutex> lock(The().mutex);
    return The().calls;
}

int Holds() {
    const std::lock_guard<std::mutex> lock(The().mutex);
    return The().holds;
}

void FailSubscriptions(bool fail) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().fail = fail;
}

}  // namespace device_power
}  // namespace fakes

extern "C" {

int device_power_subscribe_poweroff(device_power_callback_fn callback, void* userData) {
    return fakes::Subscribe(fakes::POWER_OFF, callback, userData, "subscribe_poweroff");
}
int device_power_subscribe_wakeup(device_power_callback_fn callback, void* userData) {
    return fakes::Subscribe(fakes::WAKE_UP, callback, userData, "subscribe_wakeup");
}
int device_power_unsubscribe_poweroff(device_power_callback_fn callback) {
    return fakes::Unsubscribe(fakes::POWER_OFF, callback, "unsubscribe_poweroff");
}
int device_power_unsubscribe_wakeup(device_power_callback_fn callback) {
    return fakes::Unsubscribe(fakes::WAKE_UP, callback, "unsubscribe_wakeup");
}
device_power_hold_t* device_power_hold(void) {
    if (!fakes::t_isPoweringOff) {
        return nullptr;
    }
    const std::lock_guard<std::mutex> lock(fakes::The().mutex);
    ++fakes::The().holds;
    return new device_power_hold_t;
}
void device_power_release(device_power_hold_t* hold) {
    if (hold != nullptr) {
        const std::lock_guard<std::mutex> lock(fakes::The().mutex);
        --fakes::The().holds;
        delete hold;
    }
}
}
