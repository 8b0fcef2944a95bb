/// Calls the daemon's D-Bus interface with any arguments, from several connections to a real bus, and holds
/// its answers and its subscriptions against a model. Inputs choose calls; the bus is the same for all.
#include <gio/gio.h>

#include <algorithm>
#include <array>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "TCDbusServer.h"
#include "base/glib_handles.h"
#include "fake_dlog.h"
#include "fake_policy_service.h"
#include "fakes.h"
#include "fuzz_target.h"
#include "private_bus.h"
#include "waiting.h"

namespace {

using fuzz::Require;
using Bytes = std::vector<unsigned char>;

constexpr std::size_t kMostCalls = 24;
constexpr std::size_t kPathsPerConnection = 4;
constexpr std::size_t kLongestPath = 255;
constexpr int kEcho = 4;
constexpr int kThrows = 5;
constexpr int kRefuses = 6;
constexpr const char* kPolicyInterface = "org.zol.Policy1";
constexpr const char* kTooMany = "org.zol.Error.TooManySubscribers";
constexpr const char* kTooLarge = "org.zol.Error.TooLarge";
constexpr const char* kFailed = "org.zol.Error.Failed";
constexpr const char* kWrongArguments = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* kNoMethod = "org.freedesktop.DBus.Error.UnknownMethod";

struct Answer {
    std::string error;  ///< the D-Bus error's name; empty when there was none
    base::GVariantPtr body;
};

/// A connection that answers every notification, and what it has subscribed.
class Caller {
public:
    Caller() : m_connection(ConnectTo()) {
        g_dbus_connection_add_filter(m_connection.get(), AnswerCb, nullptr, nullptr);
    }
    ~Caller() { g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr); }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    Answer Call(const std::string& method, GVariant* arguments, const char* interface = "org.zol.Native1") {
        base::GObjectPtr<GAsyncResult> result;
        g_dbus_connection_call(m_connection.get(), "org.zol.Daemon1", "/org/zol/Daemon1", interface,
                               method.c_str(), arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                               ReadyCb, &result);
        Require(ServeUntil([&] { return result != nullptr; }), "every call is answered");
        base::GErrorPtr error;
        Answer answer;
        answer.body.reset(
            g_dbus_connection_call_finish(m_connection.get(), result.get(), base::OutError(error)));
        if (error != nullptr) {
            const base::GStringPtr name(g_dbus_error_get_remote_error(error.get()));
            Require(name != nullptr, "the connection stays");
            answer.error = name.get();
        }
        return answer;
    }

    std::set<std::string> paths;

private:
    static void ReadyCb(GObject* /*source*/, GAsyncResult* result, gpointer data) {
        static_cast<base::GObjectPtr<GAsyncResult>*>(data)->reset(G_ASYNC_RESULT(g_object_ref(result)));
    }
    /// On the connection's own thread.
    static GDBusMessage* AnswerCb(GDBusConnection* connection, GDBusMessage* message, gboolean isIncoming,
                                  gpointer /*data*/) {
        if (isIncoming == FALSE ||
            g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
            return message;
        }
        const base::GObjectPtr<GDBusMessage> reply(g_dbus_message_new_method_reply(message));
        g_dbus_connection_send_message(connection, reply.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
        g_object_unref(message);
        return nullptr;
    }

    const base::GObjectPtr<GDBusConnection> m_connection;
};

using Callers = std::array<std::unique_ptr<Caller>, 3>;

/// A served bus; it lives as long as the process.
struct Served {
    Served() {
        bus.Start();
        server = std::make_unique<zol::TCDbusServer>(false);
        server->RegisterNativeCall(kEcho, [](const Bytes& in, Bytes& out) {
            out = in;
            return true;
        });
        server->RegisterNativeCall(kThrows, [](const Bytes& in, Bytes&) -> bool {
            throw std::runtime_error(std::string(in.begin(), in.end()));
        });
        server->RegisterNativeCall(kRefuses, [](const Bytes& in, Bytes& out) {
            out = in;
            return false;
        });
        server->ServePolicy(&policy);
        Require(ServeUntil([] { return fakes::dlog::Count("IPC: serving") > 0; }),
                "the server gets its name");
    }
    PrivateBus bus;
    FakePolicyService policy;
    std::unique_ptr<zol::TCDbusServer> server;
};

Served& TheServed() {
    static auto* const served = new Served;
    fakes::dlog::Clear();
    return *served;
}

void CheckCall(Caller& caller, fuzz::Input& input) {
    // Mostly codes that have a handler.
    const int code =
        input.Below(4) > 0 ? static_cast<int>(kEcho + input.Below(3)) : static_cast<int>(input.Byte());
    const std::string request = input.Text(input.Byte());
    GVariant* bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, request.data(), request.size(), 1);
    const Answer answer = caller.Call("Call", g_variant_new("(i@ay)", code, bytes));
    if (code == kThrows) {
        Require(answer.error == kFailed, "a handler that throws is an error");
        return;
    }
    Require(answer.error.empty(), "a call is answered without an error");
    gboolean handled = FALSE;
    GVariant* reply = nullptr;
    g_variant_get(answer.body.get(), "(b@ay)", &handled, &reply);
    const base::GVariantPtr owner(reply);
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_variant_get_fixed_array(reply, &size, 1));
    Require((handled != FALSE) == (code == kEcho), "what the handler said");
    Require(std::string(data, size) == (code == kEcho ? request : ""), "the handler's reply");
}

/// What Subscribe must answer; the model subscribes too.
std::string Subscribed(std::set<std::string>& paths, const std::string& path) {
    if (path.size() > kLongestPath) {
        return kTooLarge;
    }
    if (paths.count(path) == 0 && paths.size() == kPathsPerConnection) {
        return kTooMany;
    }
    paths.insert(path);
    return "";
}

void CheckSubscribe(Caller& caller, fuzz::Input& input) {
    std::string path = input.Text(input.Byte());
    if (input.Below(8) == 0) {
        path += '/' + std::string(input.Byte(), 'p');
    }
    if (g_variant_is_object_path(path.c_str()) == FALSE) {
        const base::GVariantPtr bytes(g_variant_ref_sink(g_variant_new_bytestring(path.c_str())));
        Require(caller.Call("Subscribe", g_variant_new("(@ay)", bytes.get())).error == kWrongArguments,
                "arguments of another type");
        return;
    }
    const std::string expected = Subscribed(caller.paths, path);
    Require(caller.Call("Subscribe", g_variant_new("(o)", path.c_str())).error == expected, "a subscription");
}

/// The typed interface: what a caller sends is what the service gets, what the service says comes back.
void CheckPolicyCall(Caller& caller, FakePolicyService& policy, fuzz::Input& input) {
    constexpr std::array<const char*, 3> kMethods{"SetPolicy", "Check", "Explain"};
    const std::string method = kMethods.at(input.Below(3));
    const base::GStringPtr text(g_utf8_make_valid(input.Text(input.Byte()).c_str(), -1));
    policy.answer = {input.Below(2) == 0, input.Text(input.Byte()), {}};
    policy.answer.remarks.push_back({input.Byte(), input.Byte(), input.Below(2) == 0, "kind",
                                     input.Text(input.Byte()), input.Text(input.Byte())});
    policy.rules.assign(input.Below(4), {{"name", input.Text(input.Byte())}});
    policy.documents.clear();
    const Answer answer = caller.Call(method, g_variant_new("(s)", text.get()), kPolicyInterface);
    if (std::string(text.get()) == "throw") {
        Require(answer.error == kFailed, "a service that throws is an error");
        return;
    }
    Require(answer.error.empty(), "a call is answered without an error");
    const base::GVariantPtr first(g_variant_get_child_value(answer.body.get(), 0));
    if (method == "SetPolicy") {
        Require(policy.documents == std::vector<std::string>{text.get()},
                "the document arrives as it was sent");
        Require((g_variant_get_boolean(first.get()) != FALSE) == policy.answer.isAccepted,
                "what the service said");
    } else {
        Require(policy.documents.empty(), "nothing is set");
        Require(g_variant_n_children(first.get()) == (method == "Check" ? 1 : policy.rules.size()),
                "all that the service said");
    }
}

/// Properties by any name, and attempts to set them.
void CheckProperty(Caller& caller, FakePolicyService& policy, fuzz::Input& input) {
    constexpr std::array<const char*, 4> kNames{"Version", "LastHit", "MissingServices", "PathsWaiting"};
    const bool isKnown = input.Below(4) > 0;
    const base::GStringPtr other(g_utf8_make_valid(("x" + input.Text(input.Byte())).c_str(), -1));
    const char* const name = isKnown ? kNames.at(input.Below(4)) : other.get();
    policy.state.version = input.Text(input.Byte());
    policy.state.missingServices.assign(input.Below(3), input.Text(input.Byte()));
    const bool isSet = input.Below(4) == 0;
    GVariant* arguments = isSet ? g_variant_new("(ssv)", kPolicyInterface, name, g_variant_new_string("x"))
                                : g_variant_new("(ss)", kPolicyInterface, name);
    const Answer answer = caller.Call(isSet ? "Set" : "Get", arguments, "org.freedesktop.DBus.Properties");
    Require(answer.error.empty() == (isKnown && !isSet), "only what there is, and only reading");
}

/// Arguments of a type that no method takes.
void CheckWrongArguments(Caller& caller, fuzz::Input& input) {
    constexpr std::array<const char*, 5> kMethods{"Call", "Subscribe", "Unsubscribe", "Notify", "GetAll"};
    constexpr std::array<const char*, 3> kPolicyMethods{"SetPolicy", "Check", "Explain"};
    constexpr std::array<const char*, 6> kTypes{"(ss)", "(a{si})", "(iiay)", "(ias)", "((o))", "(oo)"};
    const std::string method = kMethods.at(input.Below(5));
    const char* const type = kTypes.at(input.Below(6));
    const std::string text = input.Text(input.Byte());
    const base::GVariantPtr raw(g_variant_ref_sink(
        g_variant_new_from_data(G_VARIANT_TYPE(type), text.data(), text.size(), FALSE, nullptr, nullptr)));
    const bool isOffered = method != "Notify" && method != "GetAll";
    const Answer answer = caller.Call(method, g_variant_get_normal_form(raw.get()));
    Require(answer.error == (isOffered ? kWrongArguments : kNoMethod), "arguments that no method takes");
    Require(
        caller.Call(kPolicyMethods.at(input.Below(3)), g_variant_get_normal_form(raw.get()), kPolicyInterface)
                .error == kWrongArguments,
        "arguments that no method of the policy takes");
}

void CheckNotification(zol::TCDbusServer& server, const Callers& callers, int code) {
    std::size_t expected = 0;
    for (const auto& caller : callers) {
        expected += caller->paths.size();
    }
    Require(server.SendNotification(code, -1) == static_cast<int>(expected),
            "every subscription replies once");
}

void Step(Served& served, Callers& callers, fuzz::Input& input) {
    auto& caller = callers.at(input.Below(3));
    switch (input.Below(10)) {
        case 0:
        case 1:
            return CheckCall(*caller, input);
        case 2:
        case 3:
        case 4:
            return CheckSubscribe(*caller, input);
        case 5:
            Require(caller->Call("Unsubscribe", nullptr).error.empty(), "unsubscribing");
            return caller->paths.clear();
        case 6:
            return CheckWrongArguments(*caller, input);
        case 7:
            return CheckPolicyCall(*caller, served.policy, input);
        case 8:
            return CheckProperty(*caller, served.policy, input);
        default:
            caller = std::make_unique<Caller>();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Served& served = TheServed();
    Callers callers;
    std::generate(callers.begin(), callers.end(), [] { return std::make_unique<Caller>(); });
    fuzz::Input input(data, size);
    for (std::size_t count = 0; count < kMostCalls && !input.IsEmpty(); ++count) {
        Step(served, callers, input);
        CheckNotification(*served.server, callers, static_cast<int>(count));
    }
    return 0;
}
