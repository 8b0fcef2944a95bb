/// What a traced place costs: while tracing is inactive, beside the bare loop that it stands in, and while it
/// is active with a number, with a text, and with a trap condition on the number.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "TSFileSystem.h"
#include "cv/TCScopeContainer.h"
#include "cv/TCTraceControl.h"
#include "device_path.h"
#include "device_paths.h"

namespace {

constexpr const char* kText = "store_front/recommended/tile-12";

void TraceNumber(std::int32_t value) {
    CV_TRACE_SCOPE(scope);
    if (scope.IsActive()) {
        cv::TSCallItemHelper::StoreFixed(scope, value);
    }
}

/// Conditions of this run; an empty text: none.
void LoadTraps(const std::string& conditions) {
    static_cast<void>(TSFileSystem::MakeDir("/etc/zol", true));  // without it there are no conditions
    std::ofstream(DevicePath(ZOL_PATH_TRAP_CONF)) << conditions;
    cv::api::GetControl()->Reload();
}

void BareLoop(benchmark::State& state) {
    std::int32_t value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++value);
    }
}
BENCHMARK(BareLoop);

void InactiveScope(benchmark::State& state) {
    cv::api::GetControl()->SetActive(false);
    std::int32_t value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++value);
        TraceNumber(value);
    }
}
BENCHMARK(InactiveScope);

void ActiveScopeWithNumber(benchmark::State& state) {
    cv::api::GetControl()->SetActive(true);
    std::int32_t value = 0;
    for (auto _ : state) {
        TraceNumber(++value);
    }
    cv::api::GetControl()->SetActive(false);
}
BENCHMARK(ActiveScopeWithNumber);

void ActiveScopeWithText(benchmark::State& state) {
    cv::api::GetControl()->SetActive(true);
    for (auto _ : state) {
        CV_TRACE_SCOPE(scope);
        if (scope.IsActive()) {
            cv::TSCallItemHelper::StoreText(scope, kText);
        }
    }
    cv::api::GetControl()->SetActive(false);
}
BENCHMARK(ActiveScopeWithText);

void ActiveScopeWithTrap(benchmark::State& state) {
    LoadTraps("bench trace:TraceNumber 0 signed < 0\n");
    std::int32_t value = 0;
    for (auto _ : state) {
        TraceNumber(++value & INT32_MAX);
    }
    LoadTraps("");
    cv::api::GetControl()->SetActive(false);
}
BENCHMARK(ActiveScopeWithTrap);

}  // namespace

BENCHMARK_MAIN();
