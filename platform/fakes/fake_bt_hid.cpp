#include "fake_bt_hid.h"

#include <mutex>

#include "bt_hid.h"
#include "fake_internal.h"

namespace fakes {
namespace {

struct Remote {
    // Held while the callback runs, so that a withdrawal from another thread waits for it.
    std::mutex mutex;
    bt_hid_smart_rc_connection_cb callback = nullptr;
    void* userData = nullptr;
    int failure = 0;
};

Remote& The() {
    static auto* remote = new Remote;
    return *remote;
}

}  // namespace

void ResetBtHid() {
    Remote& remote = The();
    const std::lock_guard<std::mutex> lock(remote.mutex);
    remote.callback = nullptr;
    remote.userData = nullptr;
    remote.failure = 0;
}

namespace bt_hid {

bool Connect(bool connected, const std::string& address) {
    Remote& remote = The();
    const std::lock_guard<std::mutex> lock(remote.mutex);
    if (remote.callback == nullptr) {
        return false;
    }
    bt_device_info_s device = {address.c_str(), "Smart Remote"};
    remote.callback(connected, &device, remote.userData);
    return true;
}

void FailRegistrations(int result) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().failure = result;
}

int Registrations() {
    const std::lock_guard<std::mutex> lock(The().mutex);
    return The().callback != nullptr ? 1 : 0;
}

}  // namespace bt_hid
}  // namespace fakes

extern "C" int bt_hid_set_smart_rc_connection_cb(bt_hid_smart_rc_connection_cb callback, void* user_data) {
    fakes::Remote& remote = fakes::The();
    const std::lock_guard<std::mutex> lock(remote.mutex);
    if (remote.failure != 0) {
        return remote.failure;
    }
    remote.callback = callback;
    remote.userData = user_data;
    return 0;
}

extern "C" int bt_hid_unset_smart_rc_connection_cb(bt_hid_smart_rc_connection_cb callback, void* user_data) {
    fakes::Remote& remote = fakes::The();
    const std::lock_guard<std::mutex> lock(remote.mutex);
    if (remote.callback != callback || remote.userData != user_data) {
        return -1;
    }
    remote.callback = nullptr;
    remote.userData = nullptr;
    return 0;
}
