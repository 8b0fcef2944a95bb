#include "NativeCall.h"

#include <memory>

namespace zol::ipc {

NativeCall::NativeCall(GDBusMethodInvocation* invocation)
    : m_connection(GConnectionPtr(
          static_cast<GDBusConnection*>(g_object_ref(g_dbus_method_invocation_get_connection(invocation))))),
      m_call(g_dbus_message_new()) {
    const base::GObjectPtr<GDBusMethodInvocation> taken(invocation);
    GDBusMessage* const message = g_dbus_method_invocation_get_message(invocation);
    g_dbus_message_set_message_type(m_call.get(), G_DBUS_MESSAGE_TYPE_METHOD_CALL);
    g_dbus_message_set_flags(m_call.get(), g_dbus_message_get_flags(message));
    g_dbus_message_set_serial(m_call.get(), g_dbus_message_get_serial(message));
    g_dbus_message_set_sender(m_call.get(), g_dbus_message_get_sender(message));

    GVariant* const parameters = g_dbus_method_invocation_get_parameters(invocation);
    g_variant_get_child(parameters, 0, "i", &m_code);
    const base::GVariantPtr bytes(g_variant_get_child_value(parameters, 1));
    gsize size = 0;
    const auto* begin = static_cast<const unsigned char*>(g_variant_get_fixed_array(bytes.get(), &size, 1));
    m_isTooLong = size > kMaxMessageBytes;
    if (!m_isTooLong) {
        m_request.assign(begin, begin + size);
    }
}

void NativeCall::Return(bool handled, const std::vector<unsigned char>& reply) {
    const base::GObjectPtr<GDBusMessage> answer(g_dbus_message_new_method_reply(m_call.get()));
    g_dbus_message_set_body(
        answer.get(),
        g_variant_new("(b@ay)", handled ? TRUE : FALSE,
                      g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, reply.data(), reply.size(), 1)));
    Send(answer.get());
}

void NativeCall::ReturnError(const char* name, const std::string& message) {
    const base::GStringPtr text(g_utf8_make_valid(message.data(), static_cast<gssize>(message.size())));
    const base::GObjectPtr<GDBusMessage> answer(
        g_dbus_message_new_method_error_literal(m_call.get(), name, text.get()));
    Send(answer.get());
}

void NativeCall::Send(GDBusMessage* answer) {
    if ((g_dbus_message_get_flags(m_call.get()) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
        // A caller that is gone, or a bus, needs no answer.
        static_cast<void>(g_dbus_connection_send_message(m_connection.get(), answer,
                                                         G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr));
    }
}

}  // namespace zol::ipc
