/// The key store's work by Redis on a Unix socket, through hiredis: a server of its own, which writes its
/// file at once for durable keys and none for others; watchers subscribe to keyspace notifications.
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "base/handles.h"
#include "keys/processes.h"

namespace {

using Connection = std::unique_ptr<redisContext, base::FreeWith<redisFree>>;

constexpr const char* kEcho = "bench/echo";

Connection ConnectTo(const std::string& path) {
    for (;;) {
        Connection connection(redisConnectUnix(path.c_str()));
        if (connection != nullptr && connection->err == 0) {
            return connection;
        }
        usleep(1000);
    }
}

void Require(void* reply) {
    if (reply == nullptr || static_cast<redisReply*>(reply)->type == REDIS_REPLY_ERROR) {
        std::abort();
    }
    freeReplyObject(reply);
}

void Set(const Connection& connection, const char* key, std::int32_t value) {
    Require(redisCommand(connection.get(), "SET %s %d", key, static_cast<int>(value)));
}

/// A server in the folder of this run.
class Server {
public:
    explicit Server(bool isDurable)
        // Without what the last one left, which it would load first.
        : m_removed(std::filesystem::remove_all(bench::Folder() + "/appendonlydir")),
          m_path(bench::Folder() + (isDurable ? "/redis-durable" : "/redis-memory")),
          m_child({"redis-server", "--port", "0", "--unixsocket", m_path, "--dir", bench::Folder(), "--save",
                   "", "--logfile", "/dev/null", "--appendonly", isDurable ? "yes" : "no", "--appendfsync",
                   isDurable ? "always" : "no", "--notify-keyspace-events", "K$"}) {}
    const std::string& Path() const { return m_path; }

private:
    const std::uintmax_t m_removed;
    const std::string m_path;
    const bench::Child m_child;
};

bool IsMissing(benchmark::State& state) {
    static const bool isMissing = std::system("command -v redis-server >/dev/null") != 0;
    if (isMissing) {
        state.SkipWithError("redis-server is not installed");
    }
    return isMissing;
}

void RedisGet(benchmark::State& state) {
    if (IsMissing(state)) {
        return;
    }
    const Server server(false);
    const Connection connection = ConnectTo(server.Path());
    Set(connection, "bench/value", 1);
    for (auto _ : state) {
        Require(redisCommand(connection.get(), "GET %s", "bench/value"));
    }
}
BENCHMARK(RedisGet)->Unit(benchmark::kMicrosecond)->UseRealTime();

void RedisSet(benchmark::State& state, bool isDurable) {
    if (IsMissing(state)) {
        return;
    }
    const Server server(isDurable);
    const Connection connection = ConnectTo(server.Path());
    std::int32_t value = 0;
    for (auto _ : state) {
        Set(connection, "bench/value", ++value);
    }
}
BENCHMARK_CAPTURE(RedisSet, durable, true)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(RedisSet, memory, false)->Unit(benchmark::kMicrosecond)->UseRealTime();

/// Subscribes to a key, and to so many others; tells how many notifications there were.
int Subscribe(const bench::Words& words) {
    const Connection connection = ConnectTo(words.at(0));
    const int others = std::atoi(words.at(1).c_str());
    for (int other = 0; other <= others; ++other) {
        const std::string key = other == 0 ? kEcho : "bench/" + std::to_string(other);
        Require(redisCommand(connection.get(), "SUBSCRIBE __keyspace@0__:%s", key.c_str()));
    }
    bench::Tell(bench::kReady);
    void* message = nullptr;
    for (std::int32_t count = 1; redisGetReply(connection.get(), &message) == REDIS_OK; ++count) {
        freeReplyObject(message);
        bench::Tell(count);
    }
    return 0;
}
const bench::RoleName kSubscribe("redis", &Subscribe);

void RedisSetToNotified(benchmark::State& state, bool isDurable, int keys) {
    if (IsMissing(state)) {
        return;
    }
    const Server server(isDurable);
    const Connection connection = ConnectTo(server.Path());
    const bench::Watcher watcher("redis", {server.Path(), std::to_string(keys - 1)});
    std::int32_t value = 0;
    for (auto _ : state) {
        Set(connection, kEcho, ++value);
        watcher.Await(value);
    }
}
BENCHMARK_CAPTURE(RedisSetToNotified, memory, false, 1)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(RedisSetToNotified, durable, true, 1)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(RedisSetToNotified, memory_of_1000, false, 1000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(RedisSetToNotified, durable_of_1000, true, 1000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace
