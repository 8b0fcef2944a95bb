#include "RingQueue.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "DynamicRingQueue.h"
#include "FixedRingQueue.h"
#include "Logging.h"
#include "Mutex.h"

namespace {

constexpr const char* kSource = "core/src/RingQueue";
constexpr const char* kHeader = "core/inc/RingQueue";

/// Asserts under this source's name.
bool Asserts(bool holds, const char* expression, int line, const char* source = kSource) {
    return AssertAtsc3(holds, expression, source, line);
}

/// A negative time is a very long one, the same on machines of any width.
unsigned long Milliseconds(int ms) {
    return static_cast<std::uint32_t>(ms);
}

}  // namespace

// --- CCRingQueue ---

struct CCRingQueue::TSRecord {
    std::unique_ptr<void*[]> values;
    unsigned write = 0;
    unsigned read = 0;
    unsigned count = 0;
    std::mutex indices;  // the reader tests `write` while the writer moves it
};

CCRingQueue::CCRingQueue() : m(nullptr) {}

CCRingQueue::~CCRingQueue() {
    Asserts(m == nullptr, "!m", 31, kHeader);
}

bool CCRingQueue::Create(unsigned count) {
    if (!Asserts(m == nullptr, "!m", 21) || count == 0) {
        return false;
    }
    auto record = std::unique_ptr<TSRecord>(new (std::nothrow) TSRecord);
    if (record != nullptr) {
        record->values.reset(new (std::nothrow) void*[count]());
    }
    if (record == nullptr || record->values == nullptr) {
        return false;
    }
    if (!_CHECK(CCSemaphore::Create(0), "CCSemaphore::Create(0)", kSource, 26)) {
        return false;
    }
    record->count = count;
    m = record.release();
    return true;
}

void CCRingQueue::Destroy() {
    if (!Asserts(m != nullptr, "m", 42)) {
        return;
    }
    CCSemaphore::Destroy();
    delete m;
    m = nullptr;
}

bool CCRingQueue::Add(void* value) {
    if (!Asserts(m != nullptr, "m", 55)) {
        return false;
    }
    {
        const std::lock_guard<std::mutex> lock(m->indices);
        const unsigned next = (m->write + 1) % m->count;
        if (next == m->read) {
            return false;
        }
        m->values[m->write] = value;
        m->write = next;
    }
    return Give();
}

bool CCRingQueue::Get(void** out, int ms) {
    if (!Asserts(m != nullptr, "m", 72) || !Try(Milliseconds(ms))) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(m->indices);
    if (m->read == m->write) {
        return false;
    }
    *out = m->values[m->read];
    m->read = (m->read + 1) % m->count;
    return true;
}

// --- CCFixedRingQueue ---

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

// --- CCDynamicRingQueue ---

struct CCDynamicRingQueue::TSNode {
    TSNode* next;
    bool taken;
    void* value;
};

struct CCDynamicRingQueue::TSRecord {
    TSNode* head = nullptr;
    TSNode* tail = nullptr;
    TSNode* lastTaken = nullptr;
    std::mutex nodes;  // the reader walks the chain while the writer appends

    ~TSRecord() { FreeUntil(nullptr); }
    TSRecord() = default;
    TSRecord(const TSRecord&) = delete;
    TSRecord& operator=(const TSRecord&) = delete;

    void Append(TSNode* node) {
        (tail != nullptr ? tail->next : head) = node;
        tail = node;
    }

    // Frees from the head up to, but not including, `end`.
    void FreeUntil(const TSNode* end) {
        while (head != end && head != nullptr) {
            TSNode* const next = head->next;
            delete head;
            head = next;
        }
    }
};

CCDynamicRingQueue::CCDynamicRingQueue() : m(nullptr) {}

CCDynamicRingQueue::~CCDynamicRingQueue() {
    Asserts(m == nullptr, "!m", 96, kHeader);
}

bool CCDynamicRingQueue::Create() {
    if (!Asserts(m == nullptr, "!m", 303)) {
        return false;
    }
    auto record = std::unique_ptr<TSRecord>(new (std::nothrow) TSRecord);
    if (record == nullptr || !CCSemaphore::Create(0)) {
        return false;
    }
    m = record.release();
    return true;
}

void CCDynamicRingQueue::Destroy() {
    if (!Asserts(m != nullptr, "m", 325)) {
        return;
    }
    CCSemaphore::Destroy();
    delete m;
    m = nullptr;
}

bool CCDynamicRingQueue::Add(void* value) {
    if (!Asserts(m != nullptr, "m", 342)) {
        return false;
    }
    auto* const node = new (std::nothrow) TSNode{nullptr, false, value};
    if (node == nullptr) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(m->nodes);
    m->Append(node);
    const bool given = Give();
    // The last taken node stays: the reader's next walk starts from it.
    if (m->lastTaken != nullptr) {
        m->FreeUntil(m->lastTaken);
    }
    return given;
}

bool CCDynamicRingQueue::Get(void** out, int ms) {
    if (!Asserts(m != nullptr, "m", 378) || !Try(Milliseconds(ms))) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(m->nodes);
    TSNode* node = m->lastTaken != nullptr ? m->lastTaken : m->head;
    while (node != nullptr && node->taken) {
        node = node->next;
    }
    if (!Asserts(node != nullptr, "node", 398)) {
        return false;
    }
    node->taken = true;
    m->lastTaken = node;
    *out = node->value;
    return true;
}
