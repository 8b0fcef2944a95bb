/// The line of bench/log.cpp through spdlog: to a file that is flushed after each line.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "device_path.h"

namespace {

void SpdlogEmitted(benchmark::State& state) {
    const auto logger = spdlog::basic_logger_mt("bench", DevicePath("/spdlog.log"));
    logger->flush_on(spdlog::level::trace);
    for (auto _ : state) {
        logger->info("value {} of key {}", 42, "db/menu/picture/backlight");
    }
    spdlog::drop("bench");
}
BENCHMARK(SpdlogEmitted);

void SpdlogFiltered(benchmark::State& state) {
    const auto logger = spdlog::basic_logger_mt("bench", DevicePath("/spdlog.log"));
    for (auto _ : state) {
        logger->debug("value {} of key {}", 42, "db/menu/picture/backlight");
    }
    spdlog::drop("bench");
}
BENCHMARK(SpdlogFiltered);

}  // namespace
