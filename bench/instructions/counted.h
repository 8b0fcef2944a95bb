#pragma once
/// Counts instructions under valgrind's callgrind, which scripts/instructions runs.
#include <valgrind/callgrind.h>

#include <string>

/// Counts `rounds` calls of `work` on all threads; one before them sets up what the first call does once.
/// They end in a dump named "<path>/<rounds>".
template <class Work>
void CountInstructions(const std::string& path, int rounds, Work work) {
    work();
    CALLGRIND_START_INSTRUMENTATION;
    for (int round = 0; round < rounds; ++round) {
        work();
    }
    CALLGRIND_STOP_INSTRUMENTATION;
    const std::string name = path + "/" + std::to_string(rounds);
    CALLGRIND_DUMP_STATS_AT(name.c_str());
}
