#pragma once
/// Scoped lock with a watchdog.
#include "Mutex.h"

/// Holds a mutex as long as it lives, and lets the GLib main loop of the default context report every five
/// seconds that the lock is waited for or held too long. Without a running main loop the lock works the same
/// and nothing is reported. A mutex that is null or not created is left alone, without a watchdog.
class CSmartAutoLock {
public:
    /// @param tag printed with the report to tell locks apart; may be null
    CSmartAutoLock(CCMutex* mutex, void* tag);
    virtual ~CSmartAutoLock();
    CSmartAutoLock(const CSmartAutoLock&) = delete;
    CSmartAutoLock& operator=(const CSmartAutoLock&) = delete;

    /// The watchdog: logs which thread takes too long, or which one it is blocked by. `data` is the scoped
    /// lock, which may have gone meanwhile. Returns whether it is to be called again (a gboolean).
    static int sm_CbTimeout(void* data);

private:
    CCMutex* m_mutex;
    unsigned m_sourceId = 0;
    unsigned long m_threadId = 0;  // who constructed it, 0 without a mutex
    void* m_tag = nullptr;
};
