/// Keys that cannot be read when their rules are checked.
#include <string>

#include "checker_fixture.h"
#include "retry_timer.h"

namespace {

using fakes::vconf::Registrations;
using fakes::vconf::SetInt;
using fakes::vconf::SetString;
using UnreadKey = VconfChecker;

TEST_F(UnreadKey, ARuleThatHoldsInAStoreThatIsOutOfOrderIsReportedOnceItIsInOrder) {
    SetInt("db/int", 5);
    SetString("db/text", "on");
    fakes::vconf::Fail("db/int", fakes::vconf::FAIL_GET);
    fakes::vconf::Fail("db/text", fakes::vconf::FAIL_GET);
    Watch({IntItem("IS", 5, "db/int"), BetweenItem(1, 9), StringItem("IS", "on", "db/text")});
    EXPECT_TRUE(LetRetryCome());
    EXPECT_EQ(Reported(), Reports());
    EXPECT_EQ(Logged("[db/int] cannot be read: trying again until it can"), 1);

    fakes::vconf::Fail("db/text", fakes::vconf::FAIL_NONE);
    EXPECT_TRUE(LetRetryCome());
    EXPECT_TRUE(LetRetryCome()) << "each begins with another key";
    EXPECT_EQ(Reported(), Reports({"db/text=on"}));
    fakes::vconf::Fail("db/int", fakes::vconf::FAIL_NONE);
    EXPECT_TRUE(LetRetryCome());

    EXPECT_EQ(Reported(), Reports({"db/text=on", "db/int=5"}));
    EXPECT_EQ(Registrations("db/int") + Registrations("db/text"), 0) << "as for one that holds at once";
    EXPECT_EQ(Registrations(kWatched), 1) << "no such key: there is nothing to read again";
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(UnreadKey, ARuleThatDoesNotHoldOnceItsKeyIsReadIsWatchedFurther) {
    SetInt(kWatched, 10);
    fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_GET);
    Watch({BetweenItem(10, 20)});
    fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_NONE);

    EXPECT_TRUE(LetRetryCome());

    EXPECT_FALSE(LetRetryCome());
    EXPECT_EQ(Reported(), Reports());
    SetInt(kWatched, 11);
    EXPECT_EQ(m_notify.VconfEvents(), 1);
}

TEST_F(UnreadKey, AChangeThatComesBeforeAKeyIsReadAgainIsReportedOnce) {
    SetInt(kWatched, 5);
    fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_GET);
    Watch({IntItem("IS", 5)});
    fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_NONE);

    SetInt(kWatched, 5);
    EXPECT_TRUE(LetRetryCome());

    EXPECT_EQ(Reported(), Reports({"db/k=5"}));
    EXPECT_EQ(m_notify.VconfEvents(), 1) << "none without a hit";
    EXPECT_EQ(Registrations(kWatched), 1) << "as for one that did not hold at the start";
}

TEST_F(UnreadKey, AChangeIsJudgedByTheFirstItemAndLeavesTheReadOfAnotherOneDue) {
    fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_GET);
    Watch({IntItem("IS", 1), IntItem("IS", 5)});
    fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_NONE);

    SetInt(kWatched, 5);
    EXPECT_EQ(Reported(), Reports());
    EXPECT_TRUE(LetRetryCome());

    EXPECT_EQ(Reported(), Reports({"db/k=5"}));
    EXPECT_EQ(Registrations(kWatched), 1);
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(UnreadKey, AKeyThatStaysUnreadableDoesNotHoldTheOthersUp) {
    for (const char* key : {"db/a", "db/b", "db/c"}) {
        SetInt(key, 5);
        fakes::vconf::Fail(key, fakes::vconf::FAIL_GET);
    }
    Watch({IntItem("IS", 5, "db/a"), IntItem("IS", 5, "db/b"), IntItem("IS", 5, "db/c")});
    fakes::vconf::Fail("db/a", fakes::vconf::FAIL_NONE);
    fakes::vconf::Fail("db/b", fakes::vconf::FAIL_NONE);

    EXPECT_TRUE(LetRetryCome());
    EXPECT_TRUE(LetRetryCome());

    EXPECT_EQ(Reported(), Reports({"db/b=5", "db/a=5"}));
    EXPECT_TRUE(LetRetryCome()) << "the third";
}

TEST_F(UnreadKey, AKeyThatCannotBeReadAfterItsChangeIsReadAgainAndWatchedFurther) {
    Watch({IntItem("GREATER", 4)});
    fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_GET);
    SetInt(kWatched, 5);
    EXPECT_TRUE(LetRetryCome());
    EXPECT_EQ(Reported(), Reports());
    fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_NONE);

    EXPECT_TRUE(LetRetryCome());
    SetInt(kWatched, 6);

    EXPECT_EQ(Reported(), Reports({"db/k=5", "db/k=6"}));
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(UnreadKey, AttemptsComeAfterLongerAndLongerWaitsAndAfterASuccessAtOnceAgain) {
    Watch({IntItem("GREATER", 4)});
    for (int again = 0; again < 2; ++again) {
        fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_GET);
        SetInt(kWatched, 5);
        for (const unsigned wait : {100U, 200U, 400U}) {
            EXPECT_EQ(RetryDelayMs(), wait) << again;
            EXPECT_TRUE(LetRetryCome());
        }
        fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_NONE);
        EXPECT_TRUE(LetRetryCome());
        EXPECT_EQ(RetryDelayMs(), 0U) << again;
    }
}

TEST_F(UnreadKey, WhatCouldNotBeReadIsForgottenWithTheChecker) {
    fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_GET);
    Watch({IntItem("IS", 5)});

    m_checker.reset();

    EXPECT_FALSE(LetRetryCome());
    EXPECT_EQ(Registrations(kWatched), 0);
}

}  // namespace
