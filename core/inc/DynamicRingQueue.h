#pragma once
/// An unbounded queue of pointers whose reader blocks.
#include "Semaphore.h"

/// Adding allocates a node, taking frees it. The pointers are not owned. For one adding
/// and one getting thread; several writers need a lock of their own around Add.
class CCDynamicRingQueue : public CCSemaphore {
public:
    /// Asserts that the queue is destroyed.
    ~CCDynamicRingQueue() override;

    /// False when memory or the semaphore is missing.
    [[nodiscard]] bool Create();
    /// Frees every node, taken or not.
    void Destroy() override;

    /// False when there is no memory.
    [[nodiscard]] bool Add(void* value);
    /// Takes the oldest pointer, waiting at most `ms` milliseconds. False when there is none.
    [[nodiscard]] bool Get(void** out, int ms);

private:
    struct TSRecord;

    TSRecord* m = nullptr;
};
