#pragma once
/// Services on the system bus that may be missing, come late, restart, or lose their bus.
#include <gio/gio.h>
#include <gio/gunixfdlist.h>

#include <functional>
#include <list>
#include <string>

#include "base/bus_link.h"
#include "base/glib_handles.h"
#include "platform_services/service_mark.h"

namespace platform {

/// Follows one service on the system bus. Connects without blocking; while the bus is missing it tries again
/// after 100 ms, then doubling up to 30 s. Each change of state (bus missing, service missing, service
/// there) is one log line; a service is there when its signals come. The service is not started by this.
///
/// Lives on one thread: made, used and destroyed on the thread that runs its thread-default main context;
/// everything is delivered there. No function it was given runs after its destruction.
class SystemService {
public:
    struct Description {
        std::string busName;  ///< well-known name on the bus
        std::string title;    ///< what log lines call it
        std::string purpose;  ///< what does not work while it is missing
    };
    /// `appeared` is the place to subscribe and to call; when the service vanishes, or nobody follows it any
    /// more, its subscriptions are dropped and replies still expected never come, then `vanished` runs.
    struct Handlers {
        std::function<void()> appeared;
        std::function<void()> vanished;
    };
    struct Method {
        const char* path;
        const char* interface;
        const char* name;
    };
    /// Null matches anything.
    struct Signal {
        const char* path;
        const char* interface;
        const char* name;
        const char* firstArgument;
    };
    /// Borrowed for the duration of the call. Either `error` or `value` is null; `fds` may be null.
    struct Reply {
        GVariant* value;
        GUnixFDList* fds;
        const GError* error;
    };
    using ReplyFunction = std::function<void(const Reply&)>;
    using SignalFunction = std::function<void(const char* path, GVariant* parameters)>;

    SystemService(Description description, Handlers handlers);
    ~SystemService();
    SystemService(const SystemService&) = delete;
    SystemService& operator=(const SystemService&) = delete;

    bool Present() const { return !m_owner.empty(); }
    /// Only while the service is present. Signals that the service sends after this call arrive in order
    /// with the replies it sends.
    void Subscribe(const Signal& signal, SignalFunction function);
    /// Only while the service is present. @param arguments may be floating, null for none
    void Call(const Method& method, GVariant* arguments, const char* replyType, ReplyFunction function);

private:
    enum class State { Unknown, NoBus, NoService, Present };
    struct Subscription {
        guint id;
        SignalFunction function;
    };
    struct PendingCall {
        SystemService* service;
        ReplyFunction function;
    };

    static void AppearedCb(GDBusConnection* connection, const char* name, const char* owner, gpointer data);
    static void VanishedCb(GDBusConnection* connection, const char* name, gpointer data);
    static void SignalCb(GDBusConnection* connection, const char* sender, const char* path,
                         const char* interface, const char* name, GVariant* parameters, gpointer data);
    static void ReplyCb(GObject* source, GAsyncResult* result, gpointer data);

    void Send(const char* destination, const Method& method, GVariant* arguments, const char* replyType,
              ReplyFunction function);
    void OnConnected();
    void OnAppeared(const char* owner);
    void FollowAgain();
    void OnVanished();
    void OnLost(const char* reason);
    void DropService();
    void LeaveBus();
    void Report(State state, const char* detail);

    const Description m_description;
    const Handlers m_handlers;
    base::GMainContextPtr m_context;
    base::GObjectPtr<GCancellable> m_cancellable;  ///< of the calls of one life of the service
    guint m_nameWatch = 0;
    std::string m_owner;  ///< unique name of the service; empty while it is missing
    std::list<Subscription> m_subscriptions;
    base::GSourcePtr m_retry;
    unsigned m_pending = 0;  ///< replies that GLib still owes
    State m_state = State::Unknown;
    ServiceMark m_mark;
    base::BusLink m_link;  ///< last: an attempt that fails at once is reported while it is made
};

}  // namespace platform
