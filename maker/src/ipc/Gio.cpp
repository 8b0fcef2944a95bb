#include "Gio.h"

#include <stdexcept>

#include "Introspection.h"

namespace zol::ipc {

GNodeInfoPtr LoadIntrospection() {
    base::GErrorPtr error;
    GNodeInfoPtr info(g_dbus_node_info_new_for_xml(kIntrospectionXml, base::OutError(error)));
    if (info == nullptr) {
        throw std::runtime_error(std::string("IPC introspection data: ") + error->message);
    }
    return info;
}

void ReturnError(GDBusMethodInvocation* invocation, const char* name, const std::string& message) {
    const base::GStringPtr text(g_utf8_make_valid(message.data(), static_cast<gssize>(message.size())));
    g_dbus_method_invocation_return_dbus_error(invocation, name, text.get());
}

}  // namespace zol::ipc
