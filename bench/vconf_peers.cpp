/// What the key store is measured beside: the same question over GDBus, peer to peer, and Redis on a Unix
/// socket, where redis-server is installed. Neither is part of the product.
#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include "base/glib_handles.h"
#include "base/unique_fd.h"
#include "vconf_peers.h"

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

/// A child process that ends with this one.
class Child {
public:
    explicit Child(const std::vector<std::string>& words) : m_pid(fork()) {
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::vector<char*> pointers;
            pointers.reserve(words.size() + 1);
            for (const std::string& word : words) {
                pointers.push_back(const_cast<char*>(word.c_str()));
            }
            pointers.push_back(nullptr);
            execvp(pointers[0], pointers.data());
            _exit(1);
        }
    }
    ~Child() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

private:
    const pid_t m_pid;
};

std::string Folder() {
    const char* root = std::getenv("ZOL_ROOT");
    return root != nullptr ? root : "/tmp";
}

void GdbusGet(benchmark::State& state) {
    const std::string socket = Folder() + "/gdbus";
    std::filesystem::remove(socket);
    const Child server({"/proc/self/exe", "--gdbus", socket});
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

base::UniqueFd ConnectToRedis(const std::string& path) {
    base::UniqueFd connection;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    do {
        usleep(1000);
        connection.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    } while (connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0);
    return connection;
}

/// The answers to all that is asked here fit into one read.
void Ask(const base::UniqueFd& connection, std::initializer_list<std::string> words) {
    std::string request = "*" + std::to_string(words.size()) + "\r\n";
    for (const std::string& word : words) {
        request += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    }
    char answer[256];
    if (write(connection.Get(), request.data(), request.size()) < 0 ||
        read(connection.Get(), answer, sizeof(answer)) <= 0 || answer[0] == '-') {
        std::abort();
    }
}

/// A server in a folder of its own. @param fsync its appendfsync; empty: it writes no file
class Redis {
public:
    explicit Redis(const std::string& fsync)
        // Without what the last one left, which it would load first.
        : m_removed(std::filesystem::remove_all(Folder() + "/appendonlydir")),
          m_server({"redis-server", "--port", "0", "--unixsocket", Folder() + "/redis" + fsync, "--dir",
                    Folder(), "--save", "", "--loglevel", "warning", "--appendonly",
                    fsync.empty() ? "no" : "yes", "--appendfsync", fsync.empty() ? "no" : fsync}),
          m_path(Folder() + "/redis" + fsync) {}
    const std::string& Path() const { return m_path; }

private:
    const std::uintmax_t m_removed;
    const Child m_server;
    const std::string m_path;
};

bool IsWithoutRedis(benchmark::State& state) {
    static const bool isMissing = std::system("command -v redis-server >/dev/null") != 0;
    if (isMissing) {
        state.SkipWithError("redis-server is not installed");
    }
    return isMissing;
}

void RedisGet(benchmark::State& state) {
    if (IsWithoutRedis(state)) {
        return;
    }
    const Redis redis("");
    const base::UniqueFd connection = ConnectToRedis(redis.Path());
    Ask(connection, {"SET", "db/bench/value", "1"});
    for (auto _ : state) {
        Ask(connection, {"GET", "db/bench/value"});
    }
}

BENCHMARK(RedisGet)->Unit(benchmark::kMicrosecond)->UseRealTime();

void RedisSet(benchmark::State& state, const char* fsync) {
    if (IsWithoutRedis(state)) {
        return;
    }
    const Redis redis(fsync);
    const base::UniqueFd connection = ConnectToRedis(redis.Path());
    for (auto _ : state) {
        Ask(connection, {"SET", "db/bench/value", "1"});
    }
}

BENCHMARK_CAPTURE(RedisSet, durable, "always")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(RedisSet, memory, "")->Unit(benchmark::kMicrosecond)->UseRealTime();

/// Sets a key and tells a subscriber in another process, which answers through a pipe.
void RedisSetToNotified(benchmark::State& state) {
    if (IsWithoutRedis(state)) {
        return;
    }
    const Redis redis("");
    const base::UniqueFd connection = ConnectToRedis(redis.Path());
    int ends[2];
    if (pipe(ends) != 0) {
        std::abort();
    }
    const Child subscriber({"/proc/self/exe", "--redis", redis.Path(), std::to_string(ends[1])});
    char byte = 0;
    const auto await = [&] {
        if (read(ends[0], &byte, 1) != 1) {
            std::abort();
        }
    };
    await();
    for (auto _ : state) {
        Ask(connection, {"SET", "memory/bench/echo", "1"});
        Ask(connection, {"PUBLISH", "memory/bench/echo", "1"});
        await();
    }
    close(ends[0]);
    close(ends[1]);
}
BENCHMARK(RedisSetToNotified)->Unit(benchmark::kMicrosecond)->UseRealTime();

int RunGdbus(const char* socket) {
    const base::GStringPtr id(g_dbus_generate_guid());
    GDBusServer* const server =
        g_dbus_server_new_sync((std::string("unix:path=") + socket).c_str(), G_DBUS_SERVER_FLAGS_NONE,
                               id.get(), nullptr, nullptr, nullptr);
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(kXml, nullptr);
    g_signal_connect(server, "new-connection", G_CALLBACK(OnConnection), node);
    g_dbus_server_start(server);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}

int RunSubscriber(const char* socket, int tell) {
    const base::UniqueFd connection = ConnectToRedis(socket);
    Ask(connection, {"SUBSCRIBE", "memory/bench/echo"});
    char message[256];
    do {
        if (write(tell, "x", 1) != 1) {
            return 1;
        }
    } while (read(connection.Get(), message, sizeof(message)) > 0);
    return 0;
}

}  // namespace

std::optional<int> RunPeer(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--gdbus") == 0) {
        return RunGdbus(argv[2]);
    }
    if (argc == 4 && std::strcmp(argv[1], "--redis") == 0) {
        return RunSubscriber(argv[2], std::atoi(argv[3]));
    }
    return std::nullopt;
}
