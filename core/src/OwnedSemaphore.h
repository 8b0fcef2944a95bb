#pragma once
#include "Semaphore.h"

/// A semaphore that destroys itself when it goes.
class CCOwnedSemaphore : public CCSemaphore {
public:
    ~CCOwnedSemaphore() override {
        if (FlagCreate()) {
            CCSemaphore::Destroy();
        }
    }
};
