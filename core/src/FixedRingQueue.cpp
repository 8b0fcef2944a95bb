#include "FixedRingQueue.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "Mutex.h"
#include "RingQueueChecks.h"

using ring_queue::Asserts;
using ring_queue::kHeader;
using ring_queue::Milliseconds;

struct CCFixedRingQueue::TSRecord {
    struct TSSlot {
        unsigned char* buffer;
        bool valid;
    };

    std::unique_ptr<TSSlot[]> slots;
    std::unique_ptr<unsigned char[]> buffers;
    unsigned write = 0;
    unsigned read = 0;
    unsigned count = 0;
    std::size_t elementSize = 0;
    CCMutex mutex;
    bool lockAdd = false;
    bool lockGet = false;
    // Guards slots and indices for the length of one copy.
    mutable std::mutex contents;

    bool Allocate(std::size_t size, unsigned slotCount) {
        if (size > SIZE_MAX / slotCount) {
            return false;
        }
        slots.reset(new (std::nothrow) TSSlot[slotCount]());
        buffers.reset(new (std::nothrow) unsigned char[size * slotCount]());
        if (slots == nullptr || buffers == nullptr) {
            return false;
        }
        count = slotCount;
        elementSize = size;
        for (unsigned i = 0; i < count; ++i) {
            slots[i].buffer = &buffers[size * i];
        }
        return true;
    }

    unsigned Size() const { return (write + count - read) % count; }
    // A negative index becomes one far above any size.
    bool Holds(int index) const { return static_cast<unsigned>(index) < Size(); }
    TSSlot& At(int index) const { return slots[(read + static_cast<unsigned>(index)) % count]; }

    bool Push(const void* element) {
        const std::lock_guard<std::mutex> lock(contents);
        const unsigned next = (write + 1) % count;
        if (next == read) {
            return false;
        }
        std::memcpy(slots[write].buffer, element, elementSize);
        slots[write].valid = true;
        write = next;
        return true;
    }

    void SkipInvalid() {
        while (read != write && !slots[read].valid) {
            read = (read + 1) % count;
        }
    }

    void DropInvalidEnds() {
        SkipInvalid();
        while (read != write && !slots[(write + count - 1) % count].valid) {
            write = (write + count - 1) % count;
        }
    }

    bool Pop(void* out) {
        const std::lock_guard<std::mutex> lock(contents);
        SkipInvalid();
        if (read == write) {
            return false;
        }
        std::memcpy(out, slots[read].buffer, elementSize);
        slots[read].valid = false;
        read = (read + 1) % count;
        return true;
    }
};

CCFixedRingQueue::CCFixedRingQueue() : m(nullptr) {}

CCFixedRingQueue::~CCFixedRingQueue() {
    Asserts(m == nullptr, "!m", 62, kHeader);
}

bool CCFixedRingQueue::Create(int elementSize, unsigned count, bool lockAdd, bool lockGet) {
    if (!Asserts(m == nullptr, "!m", 115) || elementSize <= 0 || count == 0) {
        return false;
    }
    auto record = std::unique_ptr<TSRecord>(new (std::nothrow) TSRecord);
    if (record == nullptr || !record->Allocate(static_cast<std::size_t>(elementSize), count) ||
        !CCSemaphore::Create(0)) {
        return false;
    }
    if (!record->mutex.Create()) {
        CCSemaphore::Destroy();
        return false;
    }
    record->lockAdd = lockAdd;
    record->lockGet = lockGet;
    m = record.release();
    return true;
}

void CCFixedRingQueue::Destroy() {
    if (!Asserts(m != nullptr, "m", 152)) {
        return;
    }
    m->mutex.Destroy();
    CCSemaphore::Destroy();
    delete m;
    m = nullptr;
}

bool CCFixedRingQueue::Add(const void* element) {
    if (!Asserts(m != nullptr, "m", 171)) {
        return false;
    }
    if (m->lockAdd) {
        m->mutex.Lock();
    }
    const bool added = m->Push(element);
    if (m->lockAdd) {
        m->mutex.Unlock();
    }
    if (added) {
        Give();
    }
    return added;
}

bool CCFixedRingQueue::Get(void* out, int ms) {
    // A wake-up may belong to an element that an earlier Get has skipped: nothing to lock for then.
    if (!Asserts(m != nullptr, "m", 201) || !Try(Milliseconds(ms)) || Size() == 0) {
        return false;
    }
    if (m->lockGet) {
        m->mutex.Lock();
    }
    const bool taken = m->Pop(out);
    if (m->lockGet) {
        m->mutex.Unlock();
    }
    return taken;
}

bool CCFixedRingQueue::Peek(int index, void* out) {
    if (!Asserts(m != nullptr, "m", 238)) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(m->contents);
    if (!m->Holds(index) || !m->At(index).valid) {
        return false;
    }
    std::memcpy(out, m->At(index).buffer, m->elementSize);
    return true;
}

bool CCFixedRingQueue::Remove(int index) {
    if (!Asserts(m != nullptr, "m", 256)) {
        return false;
    }
    if (m->lockGet) {
        m->mutex.Lock();
    }
    {
        const std::lock_guard<std::mutex> lock(m->contents);
        if (!m->Holds(index)) {
            return false;  // the mutex, when taken, stays locked: callers count on the order of these two
        }
        m->At(index).valid = false;
    }
    if (m->lockGet) {
        m->mutex.Unlock();
    }
    return true;
}

int CCFixedRingQueue::RemoveIf(Match match, const void* context) {
    if (!Asserts(m != nullptr, "m", 256)) {
        return 0;
    }
    const std::lock_guard<std::mutex> lock(m->contents);
    int removed = 0;
    for (int index = static_cast<int>(m->Size()) - 1; index >= 0; --index) {
        TSRecord::TSSlot& slot = m->At(index);
        if (slot.valid && match(slot.buffer, context)) {
            slot.valid = false;
            ++removed;
        }
    }
    m->DropInvalidEnds();
    return removed;
}

unsigned CCFixedRingQueue::Size() const {
    if (!Asserts(m != nullptr, "m", 279)) {
        return 0;
    }
    const std::lock_guard<std::mutex> lock(m->contents);
    return m->Size();
}
