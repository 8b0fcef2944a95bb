#include "PipelineEnd.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "fake_clock.h"
#include "fakes.h"

namespace {

constexpr std::chrono::milliseconds kLook(10);
constexpr int kTimeoutMs = 100;

class PipelineEndTest : public testing::Test {
protected:
    PipelineEndTest() { fakes::Reset(); }

    /// The end that somebody inherits who is started now.
    int Inherit() {
        const int inherited = dup(end.Open());
        end.Started();
        return inherited;
    }

    zol::PipelineEnd end;
};

TEST_F(PipelineEndTest, WhereNothingWasStartedThereIsNothingToWaitFor) {
    EXPECT_TRUE(end.Wait(kTimeoutMs));
    EXPECT_EQ(fakes::clock::SleptUs(), 0U);
}

TEST_F(PipelineEndTest, WhoIsGoneAlreadyIsNotWaitedFor) {
    close(Inherit());

    EXPECT_TRUE(end.Wait(kTimeoutMs));
    EXPECT_EQ(fakes::clock::SleptUs(), 0U);
}

TEST_F(PipelineEndTest, TheWaitEndsSoonAfterTheLastOneIsGone) {
    const int inherited = Inherit();
    fakes::clock::SleepAdvances(false);
    bool gone = false;
    std::thread waiter([&] { gone = end.Wait(kTimeoutMs); });

    EXPECT_TRUE(fakes::clock::AwaitSleeper(kLook));
    close(inherited);
    fakes::clock::Advance(kLook);
    waiter.join();

    EXPECT_TRUE(gone);
    EXPECT_EQ(fakes::clock::SleptUs(), 10000U);
}

TEST_F(PipelineEndTest, TheWaitEndsInTimeWhenSomebodyStays) {
    const int inherited = Inherit();

    EXPECT_FALSE(end.Wait(kTimeoutMs));

    EXPECT_EQ(fakes::clock::SleptUs(), 100000U);
    close(inherited);
}

TEST_F(PipelineEndTest, WhoStayedIsForgotten) {
    const int inherited = Inherit();
    EXPECT_FALSE(end.Wait(kTimeoutMs));

    EXPECT_TRUE(end.Wait(kTimeoutMs));
    close(inherited);
}

}  // namespace
