#pragma once
/// A bounded queue of fixed-size elements whose reader blocks: the event queue of every task.
#include <mutex>

#include "Semaphore.h"

/// Elements are copied in and out as bytes; every buffer is allocated by Create, so Add and Get never
/// allocate. One slot always stays free: the queue holds at most `count` - 1 elements. The inherited
/// semaphore counts the elements that a reader may take; do not Take or Give it directly.
///
/// Any number of threads may add and one may get. Every operation takes the one lock of the queue for the
/// length of one copy, so Peek, Remove and Size are sound from any thread, too.
class CCFixedRingQueue : public CCSemaphore {
public:
    /// Asserts that the queue is destroyed.
    ~CCFixedRingQueue() override;

    /// @param elementSize bytes of an element, above 0
    /// @param count       slots, above 0; one of them stays free
    /// @param lockAdd     ignored: Add always locks
    /// @param lockGet     a refused Remove leaves the queue locked; Get and Remove are locked in any case
    /// False when memory or the semaphore is missing or a number is out of range; nothing is kept then.
    [[nodiscard]] bool Create(int elementSize, unsigned count, bool lockAdd, bool lockGet);

    /// Releases everything; elements still queued are dropped. No thread may be inside another operation.
    void Destroy() override;

    /// Copies the element in and wakes the reader. False when the queue is full.
    [[nodiscard]] bool Add(const void* element);

    /// Copies the oldest element out, waiting at most `ms` milliseconds for one as CCSemaphore::Try does (0:
    /// not at all, -1: 49 days). False when there is none, also when what woke the reader has been removed.
    [[nodiscard]] bool Get(void* out, int ms);

    /// Copies the element `index` places behind the oldest without taking it. False out of range and for a
    /// removed element.
    [[nodiscard]] bool Peek(int index, void* out);

    /// Makes the element at `index` invalid: it keeps its place and its share of Size, and Get skips it.
    /// False out of range; with `lockGet` the calling thread then keeps the queue locked until it destroys
    /// it: Destroy must come from this same thread.
    [[nodiscard]] bool Remove(int index);

    /// Elements queued, removed ones that no Get has passed yet included.
    unsigned Size() const;

protected:
    /// Tells whether an element is to go. Runs under the lock.
    using Match = bool (*)(const void* element, const void* context);

    /// Removes every valid element that matches, in one step as far as the other operations are concerned.
    /// The queue must be created.
    void t_RemoveIf(Match match, const void* context);

    /// The one lock of the queue. A class on top may hold it over several operations; it outlives Destroy.
    mutable std::recursive_mutex m_lock;

private:
    struct TSRecord;

    TSRecord* m = nullptr;
};
