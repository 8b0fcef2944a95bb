#include <cstdlib>
#include <iostream>

#include "client/client.h"
#include "samples.h"

namespace bench {
namespace {

constexpr const char* kName = "org.zol.Daemon1";
constexpr const char* kPath = "/org/zol/Daemon1";
/// A policy of twenty thousand items takes seconds where little is fast.
constexpr int kTimeoutMs = 300000;

[[noreturn]] void Fail(const char* what, const base::GErrorPtr& error) {
    std::cerr << "bench_client: " << what << ": " << base::ErrorText(error.get()) << std::endl;
    std::exit(1);
}

}  // namespace

Bus::Bus() {
    base::GErrorPtr error;
    m_connection.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, base::OutError(error)));
    if (m_connection == nullptr) {
        Fail("no bus", error);
    }
}

base::GVariantPtr Bus::m_Call(const char* interface, const char* method, GVariant* arguments) const {
    base::GErrorPtr error;
    base::GVariantPtr answer(g_dbus_connection_call_sync(m_connection.get(), kName, kPath, interface, method,
                                                         arguments, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                         kTimeoutMs, nullptr, base::OutError(error)));
    if (answer == nullptr) {
        Fail(method, error);
    }
    return answer;
}

std::int64_t Bus::Ping() const {
    const std::int64_t begin = NowNs();
    m_Call("org.freedesktop.DBus.Peer", "Ping", nullptr);
    return NowNs() - begin;
}

std::int64_t Bus::SetPolicy(const std::string& document, std::string& outcome) const {
    GVariant* const arguments = g_variant_new("(s)", document.c_str());
    const std::int64_t begin = NowNs();
    const base::GVariantPtr answer = m_Call("org.zol.Policy1", "SetPolicy", arguments);
    const std::int64_t took = NowNs() - begin;
    const char* word = nullptr;
    g_variant_get_child(answer.get(), 1, "&s", &word);
    outcome = word;
    return took;
}

void Bus::WatchName(void (*owned)()) const {
    const auto appeared = [](GDBusConnection*, const char*, const char*, gpointer function) {
        (*reinterpret_cast<void (*)()>(function))();
    };
    g_bus_watch_name_on_connection(m_connection.get(), kName, G_BUS_NAME_WATCHER_FLAGS_NONE, appeared,
                                   nullptr, reinterpret_cast<gpointer>(owned), nullptr);
}

}  // namespace bench
