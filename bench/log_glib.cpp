/// The line of bench/log.cpp through GLib's structured logging: to a file that is flushed after each line.
#include <benchmark/benchmark.h>
#define G_LOG_USE_STRUCTURED
#include <glib.h>

#include <cstdio>
#include <cstdlib>

#include "base/glib_handles.h"
#include "device_path.h"

namespace {

GLogWriterOutput WriteToFile(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer file) {
    const base::GStringPtr line(g_log_writer_format_fields(level, fields, count, FALSE));
    auto* const stream = static_cast<std::FILE*>(file);
    return std::fprintf(stream, "%s\n", line.get()) > 0 && std::fflush(stream) == 0 ? G_LOG_WRITER_HANDLED
                                                                                    : G_LOG_WRITER_UNHANDLED;
}

void GlibEmitted(benchmark::State& state) {
    // For the process's life, as the writer, which can be set once.
    static std::FILE* const file = [] {
        std::FILE* const opened = std::fopen(DevicePath("/glib.log").c_str(), "we");
        if (opened == nullptr) {
            std::abort();
        }
        g_log_set_writer_func(WriteToFile, opened, nullptr);
        return opened;
    }();
    benchmark::DoNotOptimize(file);
    for (auto _ : state) {
        g_log_structured("bench", G_LOG_LEVEL_MESSAGE, "MESSAGE", "value %d of key %s", 42,
                         "db/menu/picture/backlight");
    }
}
BENCHMARK(GlibEmitted);

}  // namespace
