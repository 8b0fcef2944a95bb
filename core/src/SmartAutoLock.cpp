#include "SmartAutoLock.h"

#include <glib.h>

#include <mutex>
#include <set>

namespace {

constexpr unsigned kReportIntervalMs = 5000;

/// The living scoped locks. A scoped lock may end on its own thread while the main loop is about to report
/// it, so the watchdog looks it up under the lock that the end has to take. It logs outside: whoever ends a
/// scoped lock still holds the mutex, and a log may take its time.
struct Registry {
    std::mutex mutex;
    std::set<const void*> locks;

    static Registry& The() {
        static auto* registry = new Registry;  // scoped locks may outlive static objects
        return *registry;
    }
};

void Report(void* tag, unsigned long thread, unsigned long locker) {
    const bool own = locker == thread || locker == 0;
    if (own && tag != nullptr) {
        _PRINT(LOG_TYPE_E, "[CSmartAutoLock][%p] Th[%lx] takes too long", tag, thread);
    } else if (own) {
        _PRINT(LOG_TYPE_E, "[CSmartAutoLock] Th[%lx] takes too long", thread);
    } else if (tag != nullptr) {
        _PRINT(LOG_TYPE_E, "[CSmartAutoLock][%p] Th[%lx] is blocked by Th[%lx]", tag, thread, locker);
    } else {
        _PRINT(LOG_TYPE_E, "[CSmartAutoLock] Th[%lx] is blocked by Th[%lx]", thread, locker);
    }
}

}  // namespace

CSmartAutoLock::CSmartAutoLock(CCMutex* mutex, void* tag)
    : m_mutex(mutex != nullptr && mutex->FlagCreate() ? mutex : nullptr) {
    if (m_mutex == nullptr) {
        return;
    }
    m_threadId = ThreadId();
    m_tag = tag;
    {
        const std::lock_guard<std::mutex> guard(Registry::The().mutex);
        Registry::The().locks.insert(this);
        m_sourceId = g_timeout_add(kReportIntervalMs, sm_CbTimeout, this);
    }
    m_mutex->Lock();
}

CSmartAutoLock::~CSmartAutoLock() {
    if (m_mutex == nullptr) {
        return;
    }
    // Both in one: once it is unlocked the mutex may be destroyed, and the watchdog must not look at it then.
    const std::lock_guard<std::mutex> guard(Registry::The().mutex);
    static_cast<void>(m_mutex->Unlock());  // locked by this thread in the constructor
    Registry::The().locks.erase(this);
    g_source_remove(m_sourceId);
}

int CSmartAutoLock::sm_CbTimeout(void* data) {
    if (data == nullptr) {
        return FALSE;
    }
    void* tag = nullptr;
    unsigned long thread = 0;
    unsigned long locker = 0;
    {
        const std::lock_guard<std::mutex> guard(Registry::The().mutex);
        // A source that was removed after the main loop had picked it may stand for an earlier lock that
        // lived at the same address.
        GSource* source = g_main_current_source();
        if ((source != nullptr && g_source_is_destroyed(source) != FALSE) ||
            Registry::The().locks.count(data) == 0) {
            return FALSE;
        }
        const auto* lock = static_cast<const CSmartAutoLock*>(data);
        tag = lock->m_tag;
        thread = lock->m_threadId;
        locker = lock->m_mutex->LockerId();
    }
    Report(tag, thread, locker);
    return TRUE;
}
