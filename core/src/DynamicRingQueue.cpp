#include "DynamicRingQueue.h"

#include <list>
#include <memory>
#include <mutex>
#include <new>

#include "RingQueueChecks.h"

using ring_queue::Asserts;
using ring_queue::kHeader;
using ring_queue::Milliseconds;

struct CCDynamicRingQueue::TSRecord {
    std::mutex mutex;  // the reader takes while the writer appends
    std::list<void*> values;
};

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
    const std::lock_guard lock(m->mutex);
    try {
        m->values.push_back(value);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return Give();
}

bool CCDynamicRingQueue::Get(void** out, int ms) {
    if (!Asserts(m != nullptr, "m", 378) || !Try(Milliseconds(ms))) {
        return false;
    }
    const std::lock_guard lock(m->mutex);
    if (!Asserts(!m->values.empty(), "node", 398)) {
        return false;
    }
    *out = m->values.front();
    m->values.pop_front();
    return true;
}
