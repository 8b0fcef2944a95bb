#include "fake_diagnostics.h"

#include <cstring>
#include <fstream>

#include "device_path.h"
#include "fake_internal.h"
#include "key_combination.h"
#include "notification.h"
#include "usb_device.h"

struct usb_device_s {
    std::string mountPath;
};
struct usb_device_list_s {
    usb_device_s device;
    bool empty;
};
struct notification_s {
    std::string title;
    std::string content;
};

namespace fakes {
namespace {

struct State {
    std::vector<int> wanted;
    KeyCombination_Handler handler = nullptr;
    void* userData = nullptr;
    bool failKeys = false;
    int openKeys = 0;

    usb_device_list_s sticks{{""}, true};
    usb::Failure usbFailure = usb::FAIL_NONE;
    int openUsb = 0;

    std::vector<capture::Request> captures;
    bool failCapture = false;

    notification::Failure notificationFailure = notification::FAIL_NONE;
    std::vector<std::string> posted;
    std::vector<std::string> settings;
    int handles = 0;
};

State g_state;

}  // namespace

void ResetDiagnostics() {
    g_state = State();
}

namespace keys {
void Press(int id) {
    if (g_state.openKeys > 0 && g_state.handler != nullptr && id >= 0 &&
        static_cast<std::size_t>(id) < g_state.wanted.size() &&
        g_state.wanted[static_cast<std::size_t>(id)] == 1) {
        g_state.handler(id, g_state.userData);
    }
}
bool HandlerRegistered() {
    return g_state.handler != nullptr;
}
std::vector<int> Wanted() {
    return g_state.wanted;
}
void FailInitialize(bool fail) {
    g_state.failKeys = fail;
}
int OpenServices() {
    return g_state.openKeys;
}
}  // namespace keys

namespace usb {
void SetStick(const std::string& mountPath) {
    g_state.sticks = {{mountPath}, mountPath.empty()};
}
void Fail(Failure failure) {
    g_state.usbFailure = failure;
}
int OpenServices() {
    return g_state.openUsb;
}
}  // namespace usb

namespace capture {
std::vector<Request> Requests() {
    return g_state.captures;
}
void Fail(bool fail) {
    g_state.failCapture = fail;
}
}  // namespace capture

namespace notification {
void Fail(Failure failure) {
    g_state.notificationFailure = failure;
}
std::vector<std::string> Posted() {
    return g_state.posted;
}
int Handles() {
    return g_state.handles;
}
std::vector<std::string> Settings() {
    return g_state.settings;
}
}  // namespace notification

}  // namespace fakes

using fakes::g_state;

extern "C" {

int KeyCombination_Initialize(void) {
    g_state.openKeys += g_state.failKeys ? 0 : 1;
    return g_state.failKeys ? -1 : 0;
}
int KeyCombination_Set_CombinationList(const int* list, int count) {
    g_state.wanted.assign(list, list + count);
    return 0;
}
int KeyCombination_Register_Handler(KeyCombination_Handler handler, void* userData) {
    g_state.handler = handler;
    g_state.userData = userData;
    return 0;
}
int KeyCombination_Delete_Handler(KeyCombination_Handler handler) {
    if (g_state.handler != handler) {
        return -1;
    }
    g_state.handler = nullptr;
    return 0;
}
int KeyCombination_Finalize(void) {
    g_state.openKeys = 0;  // whatever number of clients there was
    return 0;
}

int usb_device_init(void) {
    if (g_state.usbFailure == fakes::usb::FAIL_INIT) {
        return -1;
    }
    ++g_state.openUsb;
    return 0;
}
int usb_device_get_device_list(int /*deviceClass*/, usb_device_list_t** list) {
    *list = &g_state.sticks;
    return g_state.usbFailure == fakes::usb::FAIL_LIST ? -1 : 0;
}
usb_device_t* usb_device_list_get_first(usb_device_list_t* list) {
    return list->empty ? nullptr : &list->device;
}
int usb_device_get_mountpath(usb_device_t* device, char* path, size_t size) {
    if (g_state.usbFailure == fakes::usb::FAIL_MOUNTPATH || device->mountPath.size() >= size) {
        return -1;
    }
    std::memcpy(path, device->mountPath.c_str(), device->mountPath.size() + 1);
    return 0;
}
void usb_device_fini(void) {
    --g_state.openUsb;
}

int dc_request_capture_to_file_sync(const dc_capture_request* request) {
    g_state.captures.push_back({request->file, *request});
    if (g_state.failCapture) {
        return -1;
    }
    std::ofstream(DevicePath(request->file)) << "picture";
    return 0;
}

notification_h notification_create(int type) {
    g_state.settings.push_back("create " + std::to_string(type));
    if (g_state.notificationFailure == fakes::notification::FAIL_CREATE) {
        return nullptr;
    }
    ++g_state.handles;
    return new notification_s;
}
int notification_set_text(notification_h handle, int textType, const char* text, const char* key,
                          int argument) {
    (textType == NOTIFICATION_TEXT_TITLE ? handle->title : handle->content) = text;
    g_state.settings.push_back("text " + std::to_string(textType) + " " + key + " " +
                               std::to_string(argument));
    return 0;
}
int notification_set_display_applist(notification_h /*handle*/, int flags) {
    g_state.settings.push_back("applist " + std::to_string(flags));
    return 0;
}
int notification_set_layout(notification_h /*handle*/, int layout) {
    g_state.settings.push_back("layout " + std::to_string(layout));
    return g_state.notificationFailure == fakes::notification::FAIL_LAYOUT ? -1 : 0;
}
int notification_post(notification_h handle) {
    g_state.posted.push_back(handle->title + "|" + handle->content);
    return 0;
}
void notification_free(notification_h handle) {
    g_state.handles -= handle != nullptr ? 1 : 0;
    delete handle;
}
}
