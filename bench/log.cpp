/// What a line of the runtime log costs: filtered out by its type, and emitted to the platform log.
#include <benchmark/benchmark.h>

#include "Logging.h"

namespace {

void PrintFiltered(benchmark::State& state) {
    _PRINT(1, "the configuration is loaded by the first line");
    for (auto _ : state) {
        _PRINT(4, "value %d of key %s", 42, "db/menu/picture/backlight");
    }
}
BENCHMARK(PrintFiltered);

void PrintEmitted(benchmark::State& state) {
    for (auto _ : state) {
        _PRINT(1, "value %d of key %s", 42, "db/menu/picture/backlight");
    }
}
BENCHMARK(PrintEmitted);

}  // namespace

BENCHMARK_MAIN();
