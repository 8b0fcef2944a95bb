#pragma once
/// Time stamps and sleeps of the runtime.
#include <cstdint>

/// All stamps but ThreadTick read the wall clock: timers and time-outs built on them move when it is set.
/// Any thread.
class CCTime {
public:
    /// Nanoseconds since 1970.
    static std::uint64_t CurrentUtc();
    /// Milliseconds since 1970.
    static std::uint64_t Tick();
    /// Microseconds since 1970.
    static std::uint64_t UTick();
    /// CPU time of the calling thread in milliseconds; 0 when its clock cannot be read.
    static std::uint64_t ThreadTick();

    /// At most about 71 minutes: the microseconds are a 32-bit product.
    static void Sleep(unsigned long milliseconds);
    static void USleep(unsigned long microseconds);
};

/// CCTime::UTick and CCTime::ThreadTick for C-style callers.
std::uint64_t UTick();
std::uint64_t ustick();
