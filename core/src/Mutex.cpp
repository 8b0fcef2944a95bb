#include "Mutex.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>

#include "OwnedSemaphore.h"

namespace {
constexpr const char* kSource = "core/src/Mutex";
}  // namespace

struct CCMutex::TSMutex {
    std::int32_t count = 0;
    // Only the holder changes it; others compare it with themselves, or print it.
    std::atomic<unsigned long> owner{0};
    CCOwnedSemaphore semaphore;

    bool OwnedByCaller() const { return owner.load(std::memory_order_relaxed) == ThreadId(); }
    void TakenByCaller() {
        count = 1;
        owner.store(ThreadId(), std::memory_order_relaxed);
    }
};

bool CCMutex::Create() {
    if (!AssertAtsc3(m == nullptr, "!m", kSource, 15)) {
        return false;
    }
    std::unique_ptr<TSMutex> record(new (std::nothrow) TSMutex);
    if (record == nullptr || !record->semaphore.Create(1)) {
        return false;
    }
    m = record.release();
    return true;
}

void CCMutex::Destroy() {
    if (!AssertAtsc3(m != nullptr, "m", kSource, 37)) {
        return;
    }
    delete m;
    m = nullptr;
}

bool CCMutex::Lock() {
    if (!AssertAtsc3(m != nullptr, "m", kSource, 48)) {
        return false;
    }
    if (m->OwnedByCaller()) {
        ++m->count;
        return true;
    }
    m->semaphore.Take();
    m->TakenByCaller();
    return true;
}

bool CCMutex::Unlock() {
    if (!AssertAtsc3(m != nullptr, "m", kSource, 67) || !m->OwnedByCaller()) {
        return false;
    }
    if (--m->count > 0) {
        return true;
    }
    m->owner.store(0, std::memory_order_relaxed);
    return m->semaphore.Give();
}

bool CCMutex::Try(unsigned long milliseconds) {
    if (!AssertAtsc3(m != nullptr, "m", kSource, 87)) {
        return false;
    }
    if (m->OwnedByCaller()) {
        ++m->count;
        return true;
    }
    if (!m->semaphore.Try(milliseconds)) {
        return false;
    }
    m->TakenByCaller();
    return true;
}

unsigned long CCMutex::LockerId() const {
    return AssertAtsc3(m != nullptr, "m", kSource, 109) ? m->owner.load(std::memory_order_relaxed) : 0;
}
