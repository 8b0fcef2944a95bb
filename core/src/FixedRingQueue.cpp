#include "FixedRingQueue.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "RingQueueChecks.h"

using ring_queue::Asserts;
using ring_queue::kHeader;
using ring_queue::Milliseconds;

struct CCFixedRingQueue::TSRecord {
    std::unique_ptr<unsigned char[]> buffers;
    std::unique_ptr<bool[]> valid;
    unsigned write = 0;
    unsigned read = 0;
    unsigned count = 0;
    std::size_t elementSize = 0;
    bool lockGet = false;
    unsigned keptLocks = 0;  // by refused calls of Remove

    bool Allocate(std::size_t size, unsigned slots) {
        if (size > SIZE_MAX / slots) {
            return false;
        }
        // Not cleared: memory that nobody has written yet costs nothing.
        buffers.reset(new (std::nothrow) unsigned char[size * slots]);
        valid.reset(new (std::nothrow) bool[slots]());
        count = slots;
        elementSize = size;
        return buffers != nullptr && valid != nullptr;
    }

    unsigned Size() const { return (write + count - read) % count; }
    // A negative index becomes one far above any size.
    bool Holds(int index) const { return static_cast<unsigned>(index) < Size(); }
    unsigned Slot(int index) const { return (read + static_cast<unsigned>(index)) % count; }
    unsigned char* Buffer(unsigned slot) const { return &buffers[elementSize * slot]; }

    bool Push(const void* element) {
        const unsigned next = (write + 1) % count;
        if (next == read) {
            return false;
        }
        std::memcpy(Buffer(write), element, elementSize);
        valid[write] = true;
        write = next;
        return true;
    }

    bool Pop(void* out) {
        while (read != write && !valid[read]) {
            read = (read + 1) % count;
        }
        if (read == write) {
            return false;
        }
        std::memcpy(out, Buffer(read), elementSize);
        valid[read] = false;
        read = (read + 1) % count;
        if (read == write) {
            read = write = 0;  // the next one lies where this one lay, and not in memory of its own
        }
        return true;
    }
};

CCFixedRingQueue::~CCFixedRingQueue() {
    Asserts(m == nullptr, "!m", 62, kHeader);
}

bool CCFixedRingQueue::Create(int elementSize, unsigned count, bool /*lockAdd*/, bool lockGet) {
    if (!Asserts(m == nullptr, "!m", 115) || elementSize <= 0 || count == 0) {
        return false;
    }
    auto record = std::unique_ptr<TSRecord>(new (std::nothrow) TSRecord);
    if (record == nullptr || !record->Allocate(static_cast<std::size_t>(elementSize), count) ||
        !CCSemaphore::Create(0)) {
        return false;
    }
    record->lockGet = lockGet;
    m = record.release();
    return true;
}

void CCFixedRingQueue::Destroy() {
    if (!Asserts(m != nullptr, "m", 152)) {
        return;
    }
    for (; m->keptLocks > 0; --m->keptLocks) {
        m_lock.unlock();
    }
    CCSemaphore::Destroy();
    delete m;
    m = nullptr;
}

bool CCFixedRingQueue::Add(const void* element) {
    if (!Asserts(m != nullptr, "m", 171)) {
        return false;
    }
    {
        const std::lock_guard lock(m_lock);
        if (!m->Push(element)) {
            return false;
        }
    }
    return Give();
}

bool CCFixedRingQueue::Get(void* out, int ms) {
    if (!Asserts(m != nullptr, "m", 201) || !Try(Milliseconds(ms))) {
        return false;
    }
    const std::lock_guard lock(m_lock);
    return m->Pop(out);
}

bool CCFixedRingQueue::Peek(int index, void* out) {
    if (!Asserts(m != nullptr, "m", 238)) {
        return false;
    }
    const std::lock_guard lock(m_lock);
    if (!m->Holds(index) || !m->valid[m->Slot(index)]) {
        return false;
    }
    std::memcpy(out, m->Buffer(m->Slot(index)), m->elementSize);
    return true;
}

bool CCFixedRingQueue::Remove(int index) {
    if (!Asserts(m != nullptr, "m", 256)) {
        return false;
    }
    const std::lock_guard lock(m_lock);
    if (!m->Holds(index)) {
        if (m->lockGet) {
            m_lock.lock();  // stays: callers with lockGet count on it
            ++m->keptLocks;
        }
        return false;
    }
    m->valid[m->Slot(index)] = false;
    return true;
}

void CCFixedRingQueue::t_RemoveIf(Match match, const void* context) {
    const std::lock_guard lock(m_lock);
    for (unsigned slot = m->read; slot != m->write; slot = (slot + 1) % m->count) {
        m->valid[slot] = m->valid[slot] && !match(m->Buffer(slot), context);
    }
}

unsigned CCFixedRingQueue::Size() const {
    if (!Asserts(m != nullptr, "m", 279)) {
        return 0;
    }
    const std::lock_guard lock(m_lock);
    return m->Size();
}
