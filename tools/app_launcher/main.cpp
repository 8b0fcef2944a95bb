/// app_launcher -s APP [KEY VALUE]...: starts an application with arguments. On Linux there is one, the toast
/// popup, which is shown as a notification.
#include <charconv>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "base/handles.h"
#include "notification.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitNotShown = 1;
constexpr int kExitUsage = 2;

constexpr const char* kToastApp = "org.kaldo.alert-syspopup";
constexpr int kLongestTimeoutS = 3600;
constexpr int kMsPerSecond = 1000;

using Arguments = std::map<std::string, std::string>;

using NotificationPtr = std::unique_ptr<notification_s, base::FreeWith<notification_free>>;

int Complain(int status, const std::string& text) {
    std::fprintf(stderr, "app_launcher: %s\n", text.c_str());
    return status;
}

int Usage() {
    return Complain(kExitUsage, std::string("usage: app_launcher -s ") + kToastApp +
                                    " type toast text TEXT [timeout SECONDS]");
}

/// Seconds from 1 to kLongestTimeoutS, or 0 for anything else.
int ReadSeconds(const std::string& text) {
    int seconds = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, seconds);
    const bool fine = error == std::errc() && stopped == end && seconds > 0 && seconds <= kLongestTimeoutS;
    return fine ? seconds : 0;
}

int ShowToast(const Arguments& arguments) {
    for (const auto& [key, value] : arguments) {
        if (key != "type" && key != "text" && key != "timeout") {
            return Complain(kExitUsage, "unknown argument \"" + key + "\"");
        }
    }
    const auto text = arguments.find("text");
    const auto type = arguments.find("type");
    if (text == arguments.end() || type == arguments.end()) {
        return Usage();
    }
    if (type->second != "toast") {
        return Complain(kExitUsage, "unknown popup type \"" + type->second + "\"");
    }
    const NotificationPtr toast(notification_create(NOTIFICATION_TYPE_PLAIN));
    if (toast == nullptr) {
        return Complain(kExitNotShown, "no memory");
    }
    notification_set_text(toast.get(), NOTIFICATION_TEXT_TITLE, text->second.c_str(), "TITLE",
                          NOTIFICATION_ARGUMENT_NONE);
    notification_set_display_applist(toast.get(), NOTIFICATION_APPLIST_POPUP);
    if (const auto timeout = arguments.find("timeout"); timeout != arguments.end()) {
        const int seconds = ReadSeconds(timeout->second);
        if (seconds == 0) {
            return Complain(kExitUsage,
                            "the timeout is seconds from 1 to " + std::to_string(kLongestTimeoutS));
        }
        notification_set_expiry(toast.get(), seconds * kMsPerSecond);
    }
    if (notification_post(toast.get()) != 0) {
        return Complain(kExitNotShown, "nobody shows notifications");
    }
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || std::strcmp(argv[1], "-s") != 0 || argc % 2 == 0) {
        return Usage();
    }
    if (std::strcmp(argv[2], kToastApp) != 0) {
        return Complain(kExitUsage, std::string("unknown application \"") + argv[2] + "\"");
    }
    Arguments arguments;
    for (int i = 3; i < argc; i += 2) {
        arguments[argv[i]] = argv[i + 1];
    }
    return ShowToast(arguments);
}
