#include "RingQueue.h"

#include <memory>
#include <mutex>
#include <new>

#include "RingQueueChecks.h"

using ring_queue::Asserts;
using ring_queue::kHeader;
using ring_queue::kSource;
using ring_queue::Milliseconds;

struct CCRingQueue::TSRecord {
    std::unique_ptr<void*[]> values;
    unsigned write = 0;
    unsigned read = 0;
    unsigned count = 0;
    std::mutex indices;  // the reader tests `write` while the writer moves it
};

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
