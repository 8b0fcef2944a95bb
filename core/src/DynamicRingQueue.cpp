#include "DynamicRingQueue.h"

#include <memory>
#include <mutex>
#include <new>

#include "RingQueueChecks.h"

using ring_queue::Asserts;
using ring_queue::kHeader;
using ring_queue::Milliseconds;

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
