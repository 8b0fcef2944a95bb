#pragma once
/// Recursive lock that knows who holds it.
#include "Logging.h"

/// Create before use, Destroy before the object goes; both by one thread while nobody else uses it. The
/// other operations assert that it is created and do nothing (false, 0) where the assertion returns.
class CCMutex {
public:
    CCMutex() = default;
    virtual ~CCMutex() { AssertAtsc3(m == nullptr, "!m", "core/inc/Mutex", 30); }
    CCMutex(const CCMutex&) = delete;
    CCMutex& operator=(const CCMutex&) = delete;

    virtual void Destroy();

    /// False when the platform refuses it; nothing is left behind then.
    [[nodiscard]] bool Create();
    bool FlagCreate() const { return m != nullptr; }

    /// Waits without limit; the holder may lock again and unlocks as often. True.
    bool Lock();
    /// Waits like CCSemaphore::Try; false when somebody else held it all the time.
    [[nodiscard]] bool Try(unsigned long milliseconds);
    /// False, and nothing changes, when the caller does not hold it.
    [[nodiscard]] bool Unlock();
    /// POSIX id of the holder, 0 when free. Out of date the moment it returns, unless the caller holds it.
    unsigned long LockerId() const;

private:
    struct TSMutex;
    TSMutex* m = nullptr;
};
