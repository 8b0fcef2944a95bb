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
#include <string>

#include "vconf.h"

namespace {

constexpr const char* kDurable = "db/bench/value";
constexpr const char* kMemory = "memory/bench/value";
constexpr const char* kEcho = "memory/bench/echo";

void GetInt(benchmark::State& state) {
    vconf_set_int(kDurable, 1);
    int value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vconf_get_int(kDurable, &value));
    }
}
BENCHMARK(GetInt);

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
int RunWatcher() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (vconf_notify_key_changed(kEcho, Report, nullptr) != 0) {
        return 1;
    }
    Tell(-1);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}

/// The other process, seen from here.
class Watcher {
public:
    Watcher() {
        int ends[2];
        if (pipe(ends) != 0) {
            std::abort();
        }
        m_pid = fork();
        if (m_pid == 0) {
            // A new image: an open store does not survive a fork.
            dup2(ends[1], kReportTo);
            execl("/proc/self/exe", "bench_vconf", "--watch", nullptr);
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

void SetToNotifiedAcrossProcesses(benchmark::State& state) {
    const Watcher watcher;
    std::int32_t value = 0;
    for (auto _ : state) {
        vconf_set_int(kEcho, ++value);
        watcher.Await(value);
    }
}
BENCHMARK(SetToNotifiedAcrossProcesses)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string(argv[1]) == "--watch") {
        return RunWatcher();
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
