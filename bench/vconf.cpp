/// The key store: reading, setting a durable key and a memory key, and from a set in one process to the
/// watcher's callback in another.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "vconf.h"
#include "vconf_peers.h"

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

constexpr int kReportTo = 3;  ///< descriptor on which the watching process tells what it saw

void Tell(std::int32_t value) {
    if (write(kReportTo, &value, sizeof(value)) != sizeof(value)) {
        _exit(1);
    }
}

void Report(keynode_t* node, void* /*data*/) {
    Tell(node->int_value);
}

/// The watching process: tells -1 when it is ready, then every value.
int RunWatcher(const char* key, int others) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int other = 0; other <= others; ++other) {
        const std::string watched = other == 0 ? key : "memory/bench/" + std::to_string(other);
        if (vconf_notify_key_changed(watched.c_str(), Report, nullptr) != 0) {
            return 1;
        }
    }
    Tell(-1);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}

/// The other process, seen from here.
class Watcher {
public:
    Watcher(const char* key, int others) {
        int ends[2];
        if (pipe(ends) != 0) {
            std::abort();
        }
        m_pid = fork();
        if (m_pid == 0) {
            // A new image: a connection is not shared with a child.
            dup2(ends[1], kReportTo);
            execl("/proc/self/exe", "bench_vconf", "--watch", key, std::to_string(others).c_str(), nullptr);
            _exit(1);
        }
        close(ends[1]);
        m_reading = ends[0];
        Await(-1);
    }
    ~Watcher() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        close(m_reading);
    }
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    void Await(std::int32_t wanted) const {
        std::int32_t seen = wanted - 1;
        while (seen != wanted) {
            if (read(m_reading, &seen, sizeof(seen)) != sizeof(seen)) {
                std::abort();
            }
        }
    }

private:
    pid_t m_pid = -1;
    int m_reading = -1;
};

/// @param keys how many others the watching process watches beside it
void SetToNotifiedAcrossProcesses(benchmark::State& state, const char* key, int keys) {
    const Watcher watcher(key, keys);
    std::int32_t value = 0;
    for (auto _ : state) {
        vconf_set_int(key, ++value);
        watcher.Await(value);
    }
}
BENCHMARK_CAPTURE(SetToNotifiedAcrossProcesses, memory, kEcho, 0)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(SetToNotifiedAcrossProcesses, durable, kDurableEcho, 0)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(SetToNotifiedAcrossProcesses, memory_of_1000, kEcho, 999)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--watch") {
        return RunWatcher(argv[2], std::atoi(argv[3]));
    }
    if (const std::optional<int> status = RunPeer(argc, argv)) {
        return *status;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
