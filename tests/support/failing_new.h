#pragma once
/// Lets memory run out at a chosen moment.
#include <gtest/gtest.h>

#include <cstddef>

/// The calling thread's `next`th `new` from now on fails; 0: none does.
/// @return how many were left to the one that was set before; 0: it has failed
std::size_t FailAllocation(std::size_t next);

/// Repeats an action, each time with memory for one allocation more, until it has all that it needs. It must
/// return false before, and throw nothing. @return how often it was short of memory
template <class Action>
int RunShortOfMemory(Action action) {
    for (int missing = 0;; ++missing) {
        FailAllocation(static_cast<std::size_t>(missing) + 1);
        const bool isDone = action();
        const bool wasEnough = FailAllocation(0) > 0;
        EXPECT_EQ(isDone, wasEnough) << "allocation " << missing + 1;
        if (wasEnough) {
            return missing;
        }
    }
}
