#include "Subscribers.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

namespace zol::ipc {
namespace {

using InvocationPtr = base::GObjectPtr<GDBusMethodInvocation>;

bool IsSubscribe(GDBusMethodInvocation* invocation) {
    return std::strcmp(g_dbus_method_invocation_get_method_name(invocation), "Subscribe") == 0;
}

/// The argument of Subscribe; lives as long as the call.
const gchar* Path(GDBusMethodInvocation* invocation) {
    const gchar* path = nullptr;
    g_variant_get(g_dbus_method_invocation_get_parameters(invocation), "(&o)", &path);
    return path;
}

void Accept(InvocationPtr invocation) {
    g_dbus_method_invocation_return_value(invocation.release(), nullptr);
}

void Refuse(InvocationPtr invocation, const char* error, const char* why) {
    g_dbus_method_invocation_return_dbus_error(invocation.release(), error, why);
}

}  // namespace

/// A call whose account the bus is asked for.
struct Subscribers::Asked {
    Subscribers* self;
    InvocationPtr invocation;
};

Subscribers::~Subscribers() {
    g_cancellable_cancel(m_questions.get());
}

void Subscribers::Serve(GDBusMethodInvocation* invocation) {
    auto asked = std::make_unique<Asked>(Asked{this, InvocationPtr(invocation)});
    if (IsSubscribe(invocation) && std::strlen(Path(invocation)) > kMaxPathBytes) {
        // Before the bus is asked: what waits must not be long.
        Refuse(std::move(asked->invocation), kErrorTooLarge, "the path is longer than 255 bytes");
        return;
    }
    g_dbus_connection_call(g_dbus_method_invocation_get_connection(invocation), "org.freedesktop.DBus",
                           "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetConnectionUnixUser",
                           g_variant_new("(s)", g_dbus_method_invocation_get_sender(invocation)),
                           G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, m_questions.get(), AccountCb,
                           asked.release());
}

void Subscribers::AccountCb(GObject* source, GAsyncResult* result, gpointer data) {
    AtBoundary("a subscription", [&] {
        const std::unique_ptr<Asked> asked(static_cast<Asked*>(data));
        base::GErrorPtr error;
        const base::GVariantPtr reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, base::OutError(error)));
        if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE) {
            return;  // there is no connection any more, or no object
        }
        InvocationPtr& invocation = asked->invocation;
        const std::string name = g_dbus_method_invocation_get_sender(invocation.get());
        if (!IsSubscribe(invocation.get())) {
            asked->self->Remove(name);
            Accept(std::move(invocation));
        } else if (reply == nullptr) {
            Refuse(std::move(invocation), kErrorFailed, "the bus does not tell the account of the caller");
        } else {
            guint32 account = 0;
            g_variant_get(reply.get(), "(u)", &account);
            if (asked->self->Add(G_DBUS_CONNECTION(source), name, Path(invocation.get()), account)) {
                Accept(std::move(invocation));
            } else {
                Refuse(std::move(invocation), kErrorTooManySubscribers, "too many subscriptions");
            }
        }
    });
}

bool Subscribers::Add(GDBusConnection* connection, const std::string& name, const std::string& path,
                      uid_t account) {
    const auto known = m_clients.find(name);
    const std::size_t own = known != m_clients.end() ? known->second.paths.size() : 0;
    if (own > 0) {
        const auto& paths = known->second.paths;
        if (std::find(paths.begin(), paths.end(), path) != paths.end()) {
            return true;
        }
    }
    // An account that could end the daemon anyway needs no bound.
    const bool mayHaveAll = account == geteuid();
    if (m_count >= kMaxSubscribers || own >= kMaxSubscribersPerConnection ||
        (!mayHaveAll && CountOf(account) >= kMaxSubscribersPerAccount)) {
        return false;
    }
    Client& client = m_clients[name];
    client.account = account;
    client.paths.push_back(path);
    ++m_count;
    if (!client.watch) {
        // Also tells of a client that left between its call and this line.
        const guint watch = g_bus_watch_name_on_connection(
            connection, name.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr, VanishedCb, this, nullptr);
        client.watch = base::Subscription([watch] { g_bus_unwatch_name(watch); });
    }
    return true;
}

std::size_t Subscribers::CountOf(uid_t account) const {
    std::size_t count = 0;
    for (const auto& [name, client] : m_clients) {
        count += client.account == account ? client.paths.size() : 0;
    }
    return count;
}

void Subscribers::Remove(const std::string& name) {
    const auto found = m_clients.find(name);
    if (found != m_clients.end()) {
        m_count -= found->second.paths.size();
        m_clients.erase(found);
    }
}

void Subscribers::Clear() {
    g_cancellable_cancel(m_questions.get());
    m_questions.reset(g_cancellable_new());
    m_clients.clear();
    m_count = 0;
}

std::vector<Subscriber> Subscribers::All() const {
    std::vector<Subscriber> all;
    all.reserve(m_count);
    for (const auto& [name, client] : m_clients) {
        for (const std::string& path : client.paths) {
            all.push_back({name, path});
        }
    }
    return all;
}

void Subscribers::VanishedCb(GDBusConnection* /*connection*/, const gchar* name, gpointer data) {
    AtBoundary("the end of a subscriber", [&] { static_cast<Subscribers*>(data)->Remove(name); });
}

}  // namespace zol::ipc
