#include "Gio.h"

#include <stdexcept>

#include "Introspection.h"

namespace zol::ipc {

GSourcePtr StartTimer(GMainContext* context, unsigned milliseconds, GSourceFunc function, gpointer data) {
    GSourcePtr timer(g_timeout_source_new(milliseconds));
    g_source_set_callback(timer.get(), function, data, nullptr);
    g_source_attach(timer.get(), context);
    return timer;
}

GNodeInfoPtr LoadIntrospection() {
    GErrorPtr error;
    GNodeInfoPtr info(g_dbus_node_info_new_for_xml(kIntrospectionXml, ErrorOut(error)));
    if (info == nullptr) {
        throw std::runtime_error(std::string("IPC introspection data: ") + error->message);
    }
    return info;
}

std::string BusAddress(bool sessionBus, GErrorPtr& error) {
    const GBusType bus = sessionBus ? G_BUS_TYPE_SESSION : G_BUS_TYPE_SYSTEM;
    const GCharPtr address(g_dbus_address_get_for_bus_sync(bus, nullptr, ErrorOut(error)));
    return address != nullptr ? address.get() : "";
}

void ReturnError(GDBusMethodInvocation* invocation, const char* name, const std::string& message) {
    const GCharPtr text(g_utf8_make_valid(message.data(), static_cast<gssize>(message.size())));
    g_dbus_method_invocation_return_dbus_error(invocation, name, text.get());
}

}  // namespace zol::ipc
