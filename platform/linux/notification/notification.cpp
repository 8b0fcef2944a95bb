#include "notification.h"

#include <libnotify/notify.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "base/glib_handles.h"
#include "guarded.h"
#include "platform_log.h"

struct notification_s {
    std::string title;
    std::string content;
    int applist = NOTIFICATION_APPLIST_TRAY | NOTIFICATION_APPLIST_POPUP;
    int expiryMs = NOTIFY_EXPIRES_DEFAULT;
    base::GObjectPtr<NotifyNotification> shown;
};

namespace platform {

namespace {

constexpr const char* kApplication = "zol";

std::mutex g_mutex;                   ///< libnotify is not thread-safe
std::set<notification_s*> g_handles;  ///< all that exist
bool g_toldFailure = false;

/// Whether there is a session bus. Asking GLib for one that is not there could start one.
bool HasSessionBus() {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    return (address != nullptr && *address != '\0') ||
           (runtime != nullptr && g_file_test((std::string(runtime) + "/bus").c_str(), G_FILE_TEST_EXISTS));
}

/// Gives up the connection to a bus or server that is gone, so that the next post begins anew.
void StartAnew() {
    // What was shown holds on to the old connection, and GLib makes no new one before nobody does.
    for (notification_s* handle : g_handles) {
        handle->shown.reset();
    }
    notify_uninit();
}

/// The session bus as libnotify is going to use it. Its end must not end this process.
base::GObjectPtr<GDBusConnection> SessionBus() {
    if (!HasSessionBus()) {
        return nullptr;
    }
    base::GErrorPtr error;
    const auto connect = [&error] {
        return base::GObjectPtr<GDBusConnection>(
            g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, base::OutError(error)));
    };
    base::GObjectPtr<GDBusConnection> bus = connect();
    if (bus != nullptr && g_dbus_connection_is_closed(bus.get()) != FALSE) {
        bus.reset();
        StartAnew();
        bus = connect();
    }
    if (bus != nullptr) {
        g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    }
    return bus;
}

void Prepare(notification_s& handle) {
    const char* title = handle.title.c_str();
    const char* content = handle.content.c_str();
    if (handle.shown == nullptr) {
        handle.shown.reset(notify_notification_new(title, content, nullptr));
    } else {
        notify_notification_update(handle.shown.get(), title, content, nullptr);
    }
    const bool popsUp = (handle.applist & NOTIFICATION_APPLIST_POPUP) != 0;
    const bool stays = (handle.applist & NOTIFICATION_APPLIST_TRAY) != 0;
    notify_notification_set_urgency(handle.shown.get(), popsUp ? NOTIFY_URGENCY_NORMAL : NOTIFY_URGENCY_LOW);
    notify_notification_set_timeout(handle.shown.get(), handle.expiryMs);
    notify_notification_set_hint(handle.shown.get(), "transient",
                                 g_variant_new_boolean(stays ? FALSE : TRUE));
}

[[nodiscard]] bool Post(notification_s& handle) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    const base::GObjectPtr<GDBusConnection> bus = SessionBus();
    base::GErrorPtr error;
    bool shown = false;
    if (bus != nullptr && (notify_is_initted() != FALSE || notify_init(kApplication) != FALSE)) {
        Prepare(handle);
        shown = notify_notification_show(handle.shown.get(), base::OutError(error)) != FALSE;
    }
    if (shown) {
        g_toldFailure = false;
        return true;
    }
    if (!std::exchange(g_toldFailure, true)) {
        PLATFORM_LOG(WARN, "nobody shows notifications: %s",
                     bus == nullptr ? "no session bus" : base::ErrorText(error.get()));
    }
    StartAnew();
    return false;
}

}  // namespace

}  // namespace platform

extern "C" {

notification_h notification_create(int type) {
    if (type != NOTIFICATION_TYPE_PLAIN) {
        return nullptr;
    }
    return platform::Guarded("notification_create", [] {
        auto handle = std::make_unique<notification_s>();
        const std::lock_guard<std::mutex> lock(platform::g_mutex);
        platform::g_handles.insert(handle.get());
        return handle.release();
    });
}

int notification_set_text(notification_h handle, int text_type, const char* text, const char* /*key*/,
                          int argument_type) {
    if (handle == nullptr || text == nullptr || argument_type != NOTIFICATION_ARGUMENT_NONE) {
        return -1;
    }
    if (text_type != NOTIFICATION_TEXT_TITLE && text_type != NOTIFICATION_TEXT_CONTENT) {
        return -1;
    }
    const bool isSet = platform::Guarded("notification_set_text", [&] {
        (text_type == NOTIFICATION_TEXT_TITLE ? handle->title : handle->content) = text;
        return true;
    });
    return isSet ? 0 : -1;
}

int notification_set_display_applist(notification_h handle, int flags) {
    if (handle == nullptr || (flags & ~(NOTIFICATION_APPLIST_TRAY | NOTIFICATION_APPLIST_POPUP)) != 0) {
        return -1;
    }
    handle->applist = flags;
    return 0;
}

int notification_set_layout(notification_h handle, int layout) {
    return handle != nullptr && layout == NOTIFICATION_LAYOUT_SINGLE ? 0 : -1;
}

int notification_set_expiry(notification_h handle, int milliseconds) {
    if (handle == nullptr || milliseconds < 0) {
        return -1;
    }
    handle->expiryMs = milliseconds;
    return 0;
}

int notification_post(notification_h handle) {
    const bool isShown =
        handle != nullptr && platform::Guarded("notification_post", [&] { return platform::Post(*handle); });
    return isShown ? 0 : -1;
}

void notification_free(notification_h handle) {
    if (handle != nullptr) {
        // It stays on the screen for its time; only this process lets go of it.
        const std::lock_guard<std::mutex> lock(platform::g_mutex);
        platform::g_handles.erase(handle);
        delete handle;
    }
}
}
