/// The key store's work by dconf, which is what GSettings stands on: a file that readers map, a writer on the
/// session bus that replaces it at each change, and signals on that bus.
#include <benchmark/benchmark.h>
#include <dconf/client/dconf-client.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "base/glib_handles.h"
#include "keys/processes.h"

namespace {

using Client = base::GObjectPtr<DConfClient>;

constexpr const char* kEcho = "/bench/echo";
constexpr const char* kValue = "/bench/value";

/// Whether no session bus can start the writer (bench/programs.py runs this program on one that can).
bool IsMissing(benchmark::State& state) {
    static const bool isMissing = std::getenv("DBUS_SESSION_BUS_ADDRESS") == nullptr ||
                                  !std::filesystem::exists("/usr/libexec/dconf-service");
    if (isMissing) {
        state.SkipWithError("dconf-service is not installed");
    }
    return isMissing;
}

void Set(const Client& client, const char* key, std::int32_t value) {
    base::GErrorPtr error;
    if (dconf_client_write_sync(client.get(), key, g_variant_new_int32(value), nullptr, nullptr,
                                base::OutError(error)) == FALSE) {
        g_error("dconf: %s", base::ErrorText(error.get()));
    }
}

void DconfGet(benchmark::State& state) {
    if (IsMissing(state)) {
        return;
    }
    const Client client(dconf_client_new());
    Set(client, kValue, 1);
    for (auto _ : state) {
        const base::GVariantPtr value(dconf_client_read(client.get(), kValue));
        benchmark::DoNotOptimize(value.get());
    }
}
BENCHMARK(DconfGet)->Unit(benchmark::kMicrosecond)->UseRealTime();

void DconfSet(benchmark::State& state) {
    if (IsMissing(state)) {
        return;
    }
    const Client client(dconf_client_new());
    std::int32_t value = 0;
    for (auto _ : state) {
        Set(client, kValue, ++value);
    }
}
BENCHMARK(DconfSet)->Unit(benchmark::kMicrosecond)->UseRealTime();

void OnChange(DConfClient* client, const char* prefix, char** /*changes*/, const char* /*tag*/,
              gboolean /*isWritability*/, gpointer /*data*/) {
    const base::GVariantPtr value(dconf_client_read(client, prefix));
    bench::Tell(value != nullptr ? g_variant_get_int32(value.get()) : 0);
}

/// Watches a key, and so many others.
int Watch(const bench::Words& words) {
    const Client client(dconf_client_new());
    g_signal_connect(client.get(), "changed", G_CALLBACK(OnChange), nullptr);
    const int others = std::atoi(words.at(0).c_str());
    for (int other = 0; other <= others; ++other) {
        const std::string key = other == 0 ? kEcho : "/bench/others/" + std::to_string(other);
        dconf_client_watch_sync(client.get(), key.c_str());
    }
    bench::Tell(bench::kReady);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}
const bench::RoleName kWatch("dconf", &Watch);

void DconfSetToNotified(benchmark::State& state, int keys) {
    if (IsMissing(state)) {
        return;
    }
    const Client client(dconf_client_new());
    Set(client, kEcho, 0);
    const bench::Watcher watcher("dconf", {std::to_string(keys - 1)});
    std::int32_t value = 0;
    for (auto _ : state) {
        Set(client, kEcho, ++value);
        watcher.Await(value);
    }
}
BENCHMARK_CAPTURE(DconfSetToNotified, one, 1)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(DconfSetToNotified, of_1000, 1000)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
