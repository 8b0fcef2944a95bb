#include "Backlog.h"

#include <mutex>
#include <string>
#include <unordered_map>

namespace zol::ipc {

/// What is waiting, by caller. Under s_mutex.
class Backlog::Waiting {
public:
    /// Also guards each Call: it is made on the thread that reads and goes on the one that serves.
    static std::mutex s_mutex;

    /// A call that waits. Gone when its message is.
    struct Call {
        std::shared_ptr<Waiting> waiting;  // null when it was not let in
        std::string caller;
        std::size_t bytes = 0;

        Call() = default;
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;
        ~Call() {
            if (waiting != nullptr) {
                waiting->Remove(*this);
            }
        }
    };

    bool Add(const std::string& caller, std::size_t bytes) {
        std::size_t& calls = m_calls[caller];
        // One call is always let in, whatever its length: that has a limit of its own.
        if (calls >= kMaxWaitingPerConnection || (m_bytes > 0 && m_bytes + bytes > kMaxWaitingBytes)) {
            Forget(caller, calls);
            return false;
        }
        ++calls;
        m_bytes += bytes;
        return true;
    }

    /// Lets a call through, or answers it with an error. Takes the message over and returns it, or null.
    static GDBusMessage* FilterCb(GDBusConnection* connection, GDBusMessage* message, gboolean isIncoming,
                                  gpointer self);

private:
    void Remove(const Call& call) {
        std::size_t& calls = m_calls[call.caller];
        --calls;
        m_bytes -= call.bytes;
        Forget(call.caller, calls);
    }
    void Forget(const std::string& caller, std::size_t calls) {
        if (calls == 0) {
            m_calls.erase(caller);
        }
    }

    std::unordered_map<std::string, std::size_t> m_calls;  // by the caller's name on the bus
    std::size_t m_bytes = 0;                               // of all of them
};

std::mutex Backlog::Waiting::s_mutex;

GDBusMessage* Backlog::Waiting::FilterCb(GDBusConnection* connection, GDBusMessage* message,
                                         gboolean isIncoming, gpointer self) {
    if (isIncoming == FALSE || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return message;
    }
    bool isLetIn = false;
    AtBoundary("a call that arrives", [&] {
        const auto& waiting = *static_cast<std::shared_ptr<Waiting>*>(self);
        const char* const sender = g_dbus_message_get_sender(message);
        GVariant* const body = g_dbus_message_get_body(message);
        auto call = std::make_unique<Call>();
        call->caller = sender != nullptr ? sender : "";
        call->bytes = body != nullptr ? g_variant_get_size(body) : 0;
        const std::lock_guard<std::mutex> lock(s_mutex);
        isLetIn = waiting->Add(call->caller, call->bytes);
        if (isLetIn) {
            call->waiting = waiting;
            g_object_set_data_full(G_OBJECT(message), "zol-waiting", call.release(), [](gpointer data) {
                const std::lock_guard<std::mutex> held(s_mutex);
                delete static_cast<Call*>(data);
            });
        }
    });
    if (isLetIn) {
        return message;
    }
    const base::GObjectPtr<GDBusMessage> refused(message);
    if ((g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
        const base::GObjectPtr<GDBusMessage> answer(g_dbus_message_new_method_error_literal(
            message, kErrorTooManyCalls, "too many calls wait to be served"));
        static_cast<void>(g_dbus_connection_send_message(connection, answer.get(),
                                                         G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                                         nullptr));  // who is gone needs no answer
    }
    return nullptr;
}

Backlog::Backlog() : m_waiting(std::make_shared<Waiting>()) {}

Backlog::~Backlog() = default;

void Backlog::Guard(GDBusConnection* connection) const {
    // The filter outlives this object with the connection.
    g_dbus_connection_add_filter(connection, &Waiting::FilterCb, new std::shared_ptr<Waiting>(m_waiting),
                                 [](gpointer data) { delete static_cast<std::shared_ptr<Waiting>*>(data); });
}

}  // namespace zol::ipc
