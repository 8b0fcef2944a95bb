/// The key store: reading, setting a durable key and a memory key, and from a set in one process to the
/// watcher's callback in another.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "keys/processes.h"
#include "vconf.h"

namespace {

constexpr const char* kDurable = "db/bench/value";
constexpr const char* kMemory = "memory/bench/value";
constexpr const char* kEcho = "memory/bench/echo";
constexpr const char* kDurableEcho = "db/bench/echo";

void GetInt(benchmark::State& state) {
    vconf_set_int(kDurable, 1);
    int value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vconf_get_int(kDurable, &value));
    }
}
BENCHMARK(GetInt)->Unit(benchmark::kMicrosecond)->UseRealTime();

void SetInt(benchmark::State& state, const char* key) {
    int value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vconf_set_int(key, ++value));
    }
}
BENCHMARK_CAPTURE(SetInt, durable, kDurable)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(SetInt, memory, kMemory)->Unit(benchmark::kMicrosecond)->UseRealTime();

void OnChange(keynode_t* node, void* /*data*/) {
    bench::Tell(node->int_value);
}

/// Watches a key, and so many others.
int Watch(const bench::Words& words) {
    const int others = std::atoi(words.at(1).c_str());
    for (int other = 0; other <= others; ++other) {
        const std::string key = other == 0 ? words[0] : "memory/bench/" + std::to_string(other);
        if (vconf_notify_key_changed(key.c_str(), OnChange, nullptr) != 0) {
            return 1;
        }
    }
    bench::Tell(bench::kReady);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}
const bench::RoleName kWatch("watch", &Watch);

/// @param keys how many the other process watches
void SetToNotified(benchmark::State& state, const char* key, int keys) {
    const bench::Watcher watcher("watch", {key, std::to_string(keys - 1)});
    std::int32_t value = 0;
    for (auto _ : state) {
        vconf_set_int(key, ++value);
        watcher.Await(value);
    }
}
BENCHMARK_CAPTURE(SetToNotified, memory, kEcho, 1)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(SetToNotified, durable, kDurableEcho, 1)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(SetToNotified, memory_of_1000, kEcho, 1000)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(SetToNotified, durable_of_1000, kDurableEcho, 1000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> status = bench::PlayRole(argc, argv)) {
        return *status;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
