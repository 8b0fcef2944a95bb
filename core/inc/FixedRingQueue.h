#pragma once
/// A bounded queue of fixed-size elements whose reader blocks: the event queue of every task.
#include "Semaphore.h"

/// Elements are copied in and out as bytes; every buffer is allocated by Create, so Add and Get never
/// allocate. One slot always stays free: the queue holds at most `count` - 1 elements. The inherited
/// semaphore counts the elements that a reader may take; do not Take or Give it directly.
///
/// Any number of threads may add and one may get. A private lock held for the copy of one element keeps Peek
/// and Remove from other threads sound; it is apart from the lock that `lockAdd` and `lockGet` ask for.
class CCFixedRingQueue : public CCSemaphore {
public:
    /// Tells whether an element is to go. Runs under the queue's private lock: it must not call the queue.
    using Match = bool (*)(const void* element, const void* context);

    CCFixedRingQueue();
    /// Asserts that the queue is destroyed.
    ~CCFixedRingQueue() override;
    CCFixedRingQueue(const CCFixedRingQueue&) = delete;
    CCFixedRingQueue& operator=(const CCFixedRingQueue&) = delete;

    /// @param elementSize bytes of an element, above 0
    /// @param count       slots, above 0; one of them stays free
    /// @param lockAdd     Add takes the queue's mutex
    /// @param lockGet     Get and Remove take the queue's mutex
    /// False when memory or a semaphore is missing or a number is out of range; nothing is kept then.
    bool Create(int elementSize, unsigned count, bool lockAdd, bool lockGet);

    /// Releases everything; elements still queued are dropped. No thread may be inside another operation.
    void Destroy() override;

    /// Copies the element in and wakes the reader. False when the queue is full.
    bool Add(const void* element);

    /// Copies the oldest element out, waiting at most `ms` milliseconds for one as CCSemaphore::Try does (0:
    /// not at all, -1: 49 days). False when there is none, also when what woke the reader has been removed.
    bool Get(void* out, int ms);

    /// Copies the element `index` places behind the oldest without taking it. False out of range and for a
    /// removed element.
    bool Peek(int index, void* out);

    /// Makes the element at `index` invalid: it keeps its place and its share of Size, and Get skips it.
    /// False out of range; with `lockGet` the queue's mutex then stays locked.
    bool Remove(int index);

    /// Removes, from the last to the first, every valid element that matches, in one step as far as Add and
    /// Get are concerned: indices found by Peek may have moved by the time Remove is called, these have not.
    /// Removed elements at either end of the queue give their slots back at once, so that a full queue whose
    /// only receiver is gone takes elements again. Never takes the queue's mutex. Returns how many were
    /// removed.
    int RemoveIf(Match match, const void* context);

    /// Elements queued, removed ones that no Get has passed yet included.
    unsigned Size() const;

private:
    struct TSRecord;

    TSRecord* m;
};
