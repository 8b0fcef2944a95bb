#pragma once
/// Scoped lock.
#include "Mutex.h"

/// Holds a mutex as long as it lives. A mutex that is null or not created is left alone.
class CCAutoLock {
public:
    explicit CCAutoLock(CCMutex* mutex) : m_mutex(mutex != nullptr && mutex->FlagCreate() ? mutex : nullptr) {
        if (m_mutex != nullptr) {
            m_mutex->Lock();
        }
    }
    virtual ~CCAutoLock() {
        if (m_mutex != nullptr) {
            static_cast<void>(m_mutex->Unlock());  // locked by this thread above
        }
    }
    CCAutoLock(const CCAutoLock&) = delete;
    CCAutoLock& operator=(const CCAutoLock&) = delete;

private:
    CCMutex* m_mutex;
};
