#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "base/backoff.h"
#include "base/exception_wall.h"
#include "base/subscription.h"

namespace {

TEST(CatchAllTest, ReturnsWhatTheWorkReturns) {
    std::string reported;
    EXPECT_EQ(base::CatchAll([] { return 7; }, [&](const char* text) { reported = text; }), 7);
    EXPECT_EQ(reported, "");
}

TEST(CatchAllTest, ReportsAnExceptionAndReturnsZero) {
    std::string reported;
    const auto report = [&](const char* text) { reported = text; };
    EXPECT_FALSE(base::CatchAll([]() -> bool { throw std::runtime_error("no luck"); }, report));
    EXPECT_EQ(reported, "no luck");
    base::CatchAll([] { throw 5; }, report);
    EXPECT_EQ(reported, "unknown exception");
}

TEST(BackoffTest, DoublesUpToTheLongestWaitAndBeginsAgainAfterASuccess) {
    base::Backoff backoff;
    const std::vector<unsigned> expected = {100, 200, 400, 800, 1600, 3200, 6400, 12800, 25600, 30000, 30000};
    std::vector<unsigned> waits(expected.size());
    for (unsigned& wait : waits) {
        wait = backoff.Next();
    }
    EXPECT_EQ(waits, expected);
    backoff.Reset();
    EXPECT_EQ(backoff.Next(), 100U);
}

TEST(SubscriptionTest, WithdrawsOnceWhenItGoes) {
    int withdrawn = 0;
    {
        base::Subscription first([&] { ++withdrawn; });
        base::Subscription second(std::move(first));
        EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): what a move leaves is the contract
        EXPECT_TRUE(second);
    }
    EXPECT_EQ(withdrawn, 1);
}

TEST(SubscriptionTest, WithdrawsWhatItHadBeforeItTakesAnother) {
    std::string order;
    base::Subscription subscription([&] { order += "a"; });
    subscription = base::Subscription([&] { order += "b"; });
    EXPECT_EQ(order, "a");
    subscription.Reset();
    subscription.Reset();
    EXPECT_EQ(order, "ab");
}

}  // namespace
