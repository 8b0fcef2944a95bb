#pragma once
/// Counting semaphore.
#include <cstdint>

#include "Logging.h"

/// Process-private. Create before use, Destroy before the object goes; both by one thread while nobody else
/// uses it. Any thread may take and give. Used outside of Create and Destroy it ends the process (__ASSERT).
class CCSemaphore {
public:
    CCSemaphore() = default;
    virtual ~CCSemaphore() { AssertExit(m == nullptr, "!m", "core/inc/Semaphore", 30); }
    CCSemaphore(const CCSemaphore&) = delete;
    CCSemaphore& operator=(const CCSemaphore&) = delete;

    virtual void Destroy();

    /// False when the platform refuses it; nothing is left behind then.
    [[nodiscard]] bool Create(std::uint32_t value);
    bool FlagCreate() const { return m != nullptr; }

    /// Waits without limit. True.
    bool Take();
    /// Waits at most this long on the wall clock; 0 returns at once. False when it could not be taken in
    /// time. Also false at once, without waiting, when the milliseconds behind the full second of the wait
    /// and of the wall clock add up to a second or more: the deadline is built without a carry.
    [[nodiscard]] bool Try(unsigned long milliseconds);
    /// True.
    bool Give();

private:
    struct TSSemaphore;
    TSSemaphore* m = nullptr;
};
