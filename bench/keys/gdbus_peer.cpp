/// What a key store over D-Bus would at least cost: the question of a get over GDBus, peer to peer, with no
/// store behind it.
#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/glib_handles.h"
#include "keys/processes.h"

namespace {

constexpr const char* kXml =
    "<node><interface name='bench.Store'><method name='Get'><arg type='s' direction='in'/>"
    "<arg type='i' direction='out'/></method></interface></node>";

void OnCall(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant*,
            GDBusMethodInvocation* invocation, gpointer) {
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", 1));
}

gboolean OnConnection(GDBusServer*, GDBusConnection* connection, gpointer node) {
    static const GDBusInterfaceVTable functions = {&OnCall, nullptr, nullptr, {}};
    g_object_ref(connection);
    g_dbus_connection_register_object(connection, "/", static_cast<GDBusNodeInfo*>(node)->interfaces[0],
                                      &functions, nullptr, nullptr, nullptr);
    return TRUE;
}

int Serve(const bench::Words& words) {
    const base::GStringPtr id(g_dbus_generate_guid());
    GDBusServer* const server = g_dbus_server_new_sync(
        ("unix:path=" + words.at(0)).c_str(), G_DBUS_SERVER_FLAGS_NONE, id.get(), nullptr, nullptr, nullptr);
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(kXml, nullptr);
    g_signal_connect(server, "new-connection", G_CALLBACK(OnConnection), node);
    g_dbus_server_start(server);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}
const bench::RoleName kServe("gdbus", &Serve);

void GdbusGet(benchmark::State& state) {
    const std::string socket = bench::Folder() + "/gdbus";
    std::filesystem::remove(socket);
    const bench::Child server({"/proc/self/exe", "--as", "gdbus", socket});
    base::GObjectPtr<GDBusConnection> connection;
    while (connection == nullptr) {
        connection.reset(g_dbus_connection_new_for_address_sync(("unix:path=" + socket).c_str(),
                                                                G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT,
                                                                nullptr, nullptr, nullptr));
        usleep(1000);
    }
    for (auto _ : state) {
        const base::GVariantPtr answer(g_dbus_connection_call_sync(
            connection.get(), nullptr, "/", "bench.Store", "Get", g_variant_new("(s)", "db/bench/value"),
            nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
        benchmark::DoNotOptimize(answer.get());
    }
}
BENCHMARK(GdbusGet)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
