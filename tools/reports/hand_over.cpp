#include "hand_over.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <utility>

#include "base/handles.h"

namespace reports {

bool ReadPublished(std::string& path) {
    errno = 0;
    const base::MallocString value(vconf_get_str(kHandOverKey));
    if (value == nullptr && errno != ENOENT) {
        return false;
    }
    path = value != nullptr ? value.get() : "";
    return true;
}

bool EmptyKey(const std::string& path) {
    std::string now;
    return ReadPublished(now) && (now != path || vconf_set_str(kHandOverKey, "") == 0);
}

Outcome TakePublished(const std::string& path, const Take& take) {
    std::string name;
    ReportRoot root;
    Outcome outcome = NameOf(path, name);
    if (!outcome) {
        outcome = root.Open();
    }
    if (!outcome) {
        outcome = take(root, name);
    }
    if (outcome.problem == Problem::Unreadable || outcome.problem == Problem::Unwritable) {
        return outcome;
    }
    if (!EmptyKey(path)) {
        return {Problem::NoStore, StoreError(errno)};
    }
    return outcome;
}

base::Subscription WatchKey(vconf_callback_fn callback, void* userData) {
    // Made before the registration: once that is there nothing may throw.
    std::function<void()> withdraw = [=] { vconf_withdraw_key_changed(kHandOverKey, callback, userData); };
    if (vconf_notify_key_changed(kHandOverKey, callback, userData) < 0) {
        return {};
    }
    return base::Subscription(std::move(withdraw));
}

std::string StoreError(int error) {
    return std::string("the key store cannot be used: ") +
           (error != 0 ? std::strerror(error) : "it refused") +
           (error == EACCES ? "; it is for root and members of the group zol" : "");
}

}  // namespace reports
