#pragma once
/// A machine whose failed assertions report and return.
#include <cstdlib>
#include <string>

#include "device_test.h"

class ContainerFixture : public DeviceTest {
protected:
    ContainerFixture() { SurviveAssertions(); }

    /// For EXPECT_EXIT: ends with how often `assertion` was reported by a queue that is destructed before its
    /// Destroy.
    template <class Queue, class... Arguments>
    [[noreturn]] static void ForgetQueue(const std::string& assertion, Arguments... arguments) {
        {
            Queue queue;
            EXPECT_TRUE(queue.Create(arguments...));
            queue.CCSemaphore::Destroy();  // would end the process itself
        }
        std::_Exit(Assertions(assertion));
    }
};
