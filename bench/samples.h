#pragma once
/// What a program of its own measured, for bench/programs.py.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace bench {

inline std::int64_t NowNs() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

/// Prints one line "<name><TAB><median><TAB><99th percentile>", in microseconds of samples in nanoseconds.
inline void PrintSamples(const std::string& name, std::vector<std::int64_t> samples) {
    std::sort(samples.begin(), samples.end());
    const auto at = [&](std::size_t percent) {
        const std::size_t place = samples.size() * percent / 100;
        return static_cast<double>(samples[std::min(place, samples.size() - 1)]) / 1000;
    };
    std::printf("%s\t%.3f\t%.3f\n", name.c_str(), at(50), at(99));
    std::fflush(stdout);
}

}  // namespace bench
