#pragma once
/// A bounded queue of pointers whose reader blocks.
#include "Semaphore.h"

/// Holds at most `count` - 1 pointers, which it does not own. For one adding and one getting thread; several
/// writers need a lock of their own around Add.
class CCRingQueue : public CCSemaphore {
public:
    /// Asserts that the queue is destroyed.
    ~CCRingQueue() override;

    /// False when `count` is 0 or memory or the semaphore is missing.
    [[nodiscard]] bool Create(unsigned count);
    /// Pointers still queued are dropped.
    void Destroy() override;

    /// False when the queue is full.
    [[nodiscard]] bool Add(void* value);
    /// Takes the oldest pointer, waiting at most `ms` milliseconds. False when there is none.
    [[nodiscard]] bool Get(void** out, int ms);

private:
    struct TSRecord;

    TSRecord* m = nullptr;
};
