#include "ZOLVconfChecker.h"

#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "checker_fixture.h"

namespace {

using fakes::vconf::Registrations;
using fakes::vconf::SetInt;
using fakes::vconf::SetString;
using zol::TCVconfChecker;
using zol::ZOLVconfMonitor;

using IntegerRules = VconfChecker;
using StringRules = VconfChecker;
using CheckAtStart = VconfChecker;
using KeyChange = VconfChecker;
using CheckerLife = VconfChecker;

TEST_F(IntegerRules, BetweenGreaterAndLessExcludeTheirBoundsAndIsAndNotCompareExactly) {
    const std::vector<std::tuple<ZOLVconfMonitor, int, bool>> cases{
        {BetweenItem(10, 20), 10, false}, {BetweenItem(10, 20), 11, true},   {BetweenItem(10, 20), 19, true},
        {BetweenItem(10, 20), 20, false}, {IntItem("GREATER", 5), 5, false}, {IntItem("GREATER", 5), 6, true},
        {IntItem("LESS", 5), 4, true},    {IntItem("LESS", 5), 5, false},    {IntItem("IS", 5), 5, true},
        {IntItem("IS", 5), -5, false},    {IntItem("NOT", 5), 4, true},      {IntItem("NOT", 5), 5, false}};
    for (const auto& [item, value, holds] : cases) {
        EXPECT_EQ(HoldsAtStart(item, value), holds) << item.condition << " at " << value;
    }
}

TEST_F(IntegerRules, ABetweenHitIsReportedAsMinusOneAndNull) {
    EXPECT_TRUE(HoldsAtStart(BetweenItem(10, 20), 15));

    EXPECT_EQ(Reported(), Reports({"db/k=null"}));
    ExpectErrors({"[m_CheckIntType] greater[10] < vconfValue[15] < less[20], send event to notify",
                  "key[db/k], intValue[-1], strValue[null]"});
}

TEST_F(IntegerRules, EachHitReportsTheValueReadAndIsLoggedWithBoth) {
    SetInt("db/is", 5);
    SetInt("db/not", 4);
    SetInt("db/greater", 6);
    SetInt("db/less", 3);

    Watch({IntItem("IS", 5, "db/is"), IntItem("NOT", 5, "db/not"), IntItem("GREATER", 5, "db/greater"),
           IntItem("LESS", 5, "db/less")});

    EXPECT_EQ(Reported(), Reports({"db/is=5", "db/not=4", "db/greater=6", "db/less=3"}));
    const std::vector<std::string> texts = {
        "[m_CheckIntType] vconfValue[5] == value[5], send event to notify",
        "[m_CheckIntType] vconfValue[4] != value[5], send event to notify",
        "[m_CheckIntType] vconfValue[6] > value[5], send event to notify",
        "[m_CheckIntType] vconfValue[3] < value[5], send event to notify"};
    ExpectErrors(texts);
    ExpectPlaces("ZOLVconfChecker: m_CheckIntType", texts);
}

TEST_F(IntegerRules, AConditionInLowerCaseIsCodeZeroAndNeverHolds) {
    EXPECT_FALSE(HoldsAtStart(IntItem("is", 5), 5));
    ExpectErrors({"[m_CheckIntType] condition[0]"});
}

TEST_F(IntegerRules, AConditionThatIsKnownAndDoesNotHoldIsNoLine) {
    EXPECT_FALSE(HoldsAtStart(IntItem("IS", 5), 4));
    EXPECT_FALSE(HoldsAtStart(IntItem("LESS", 5), 5));
    EXPECT_EQ(Logged("[m_CheckIntType] condition["), 0);
}

TEST_F(IntegerRules, AnUnknownTypeWordIsTreatedAsAnInteger) {
    ZOLVconfMonitor item = Item("DOUBLE", "IS", kWatched);
    item.intValue = 5;
    EXPECT_TRUE(HoldsAtStart(item, 5));
}

TEST_F(StringRules, IsAndNotCompareExactlyAndTheOtherConditionsNeverHold) {
    EXPECT_TRUE(HoldsAtStart(StringItem("IS", "on"), "on"));
    EXPECT_FALSE(HoldsAtStart(StringItem("IS", "on"), "On"));
    EXPECT_TRUE(HoldsAtStart(StringItem("NOT", "on"), "on "));
    EXPECT_FALSE(HoldsAtStart(StringItem("NOT", "on"), "on"));
    for (const char* condition : {"GREATER", "LESS", "BETWEEN", "is", ""}) {
        EXPECT_FALSE(HoldsAtStart(StringItem(condition, "on"), "on")) << condition;
        EXPECT_FALSE(HoldsAtStart(StringItem(condition, "on"), "off")) << condition;
    }
}

TEST_F(StringRules, AHitReportsTheTextReadAndIsLogged) {
    EXPECT_TRUE(HoldsAtStart(StringItem("IS", "on"), "on"));
    EXPECT_TRUE(HoldsAtStart(StringItem("NOT", "on"), "off"));

    EXPECT_EQ(Reported(), Reports({"db/k=on", "db/k=off"}));
    ExpectErrors({"[m_CheckStringType] vconfValue[on] condition[1] strValue[on]",
                  "[m_CheckStringType] vconfValue[on] == strValue[on], send event to notify",
                  "[m_CheckStringType] vconfValue[off] != strValue[on], send event to notify",
                  "key[db/k], intValue[-1], strValue[off]"});
}

TEST_F(CheckAtStart, AnItemThatHoldsIsReportedOnceAndNotWatched) {
    SetInt(kWatched, 5);
    Watch({IntItem("IS", 5)});

    SetInt(kWatched, 5);
    m_checker->CheckNow({});

    EXPECT_EQ(Registrations(kWatched), 0);
    EXPECT_EQ(Reported(), Reports({"db/k=5"}));
    EXPECT_EQ(m_notify.VconfEvents(), 1);
}

TEST_F(CheckAtStart, TwoItemsThatHoldAreTwoHitsAndOneEvent) {
    SetInt("db/a", 1);
    SetString("db/b", "on");

    Watch({IntItem("IS", 1, "db/a"), StringItem("IS", "on", "db/b")});

    EXPECT_EQ(Reported(), Reports({"db/a=1", "db/b=on"}));
    EXPECT_EQ(m_notify.VconfEvents(), 1);
    ExpectErrors({"m_Notify() CALL"});
}

TEST_F(CheckerLife, WithAnEmptyListItRegistersPostsAndHandlesNothing) {
    Watch({});
    CSEvent event;
    event.type = 77;
    EXPECT_TRUE(m_checker->t_OnEvent(&event));
    EXPECT_TRUE(m_checker->t_OnEvent(nullptr));
    EXPECT_STREQ(m_checker->Name(), "ZOLVconfChecker");
    EXPECT_EQ(m_notify.VconfEvents(), 0);
    EXPECT_EQ(Registrations(), 1) << "the notify manager's own";

    m_checker.reset();
    ExpectLogged(DLOG_PRIORITY_INFO, {"[TCVconfChecker] Create", "[TCVconfChecker] Created",
                                      "[TCVconfChecker] Destroy", "[TCVconfChecker] Destroyed"});
}

TEST_F(CheckAtStart, AKeyThatCannotBeReadIsWatchedAllTheSame) {
    Watch({IntItem("IS", 5)});

    SetInt(kWatched, 5);

    EXPECT_EQ(Reported(), Reports({"db/k=5"}));
    ExpectErrors({"vconf_get_int() fail", "[db/k] registered"});
}

TEST_F(CheckAtStart, AKeyThatReachesItsRuleBetweenItsCheckAndItsWatchIsReportedOnce) {
    SetInt(kWatched, 1);
    fakes::vconf::SetIntBeforeWatched(kWatched, 5);

    Watch({IntItem("IS", 5)});

    EXPECT_EQ(Reported(), Reports({"db/k=5"}));
    EXPECT_EQ(Registrations(kWatched), 0);
}

TEST_F(CheckAtStart, AKeyThatCannotBeWatchedIsLogged) {
    fakes::vconf::Fail(kWatched, fakes::vconf::FAIL_NOTIFY);

    Watch({IntItem("IS", 5)});

    ExpectErrors({"[db/k] failed"});
    EXPECT_EQ(Logged("[db/k] registered"), 0);
}

TEST_F(CheckAtStart, WithoutANotifyManagerThatRunsHitsAreLost) {
    SetInt(kWatched, 5);
    TCNotifyManager idle;

    Watch({IntItem("IS", 5)}, nullptr);
    Watch({IntItem("IS", 5)}, &idle);
    m_checker.reset();

    EXPECT_EQ(Reported(), Reports());
    ExpectErrors({"> m_pNotify is NULL", "> Send() fail"});
}

TEST_F(KeyChange, EveryHitIsReportedWithItsOwnEventAndAnotherChangePostsNothing) {
    SetInt(kWatched, 1);
    Watch({IntItem("IS", 5)});
    SetInt(kWatched, 4);
    EXPECT_EQ(m_notify.VconfEvents(), 0);
    EXPECT_EQ(Logged("found on list!"), 0);

    SetInt(kWatched, 5);
    EXPECT_EQ(Reported(), Reports({"db/k=5"}));

    SetInt(kWatched, 5);
    EXPECT_EQ(Reported(), Reports({"db/k=5", "db/k=5"}));
    EXPECT_EQ(m_notify.VconfEvents(), 2);
    ExpectErrors({"> [m_KeyChangedCb] key : db/k", "> find!", "> found on list!"});
}

TEST_F(KeyChange, MemoryThatRunsOutMeanwhileIsLogged) {
    const std::string key = "db/a/name/that/is/not/short";
    Watch({IntItem("IS", 5, key)});
    fakes::vconf::Deliver();  // what the notify manager has set
    CallShortOfMemory([&] { SetInt(key, 4); });
    EXPECT_GT(Logged("callback failed: std::bad_alloc"), 0);
}

TEST_F(KeyChange, OnlyTheFirstItemOfAKeyIsEvaluated) {
    SetInt(kWatched, 5);
    Watch({IntItem("IS", 5), IntItem("GREATER", 6)});
    EXPECT_EQ(Registrations(kWatched), 1) << "for the second item";

    SetInt(kWatched, 7);
    EXPECT_EQ(Reported(), Reports({"db/k=5"})) << "the second item would hold";

    SetInt(kWatched, 5);
    EXPECT_EQ(Reported(), Reports({"db/k=5", "db/k=5"})) << "seen because the second item is registered";
}

TEST_F(KeyChange, AStringItemOnAnIntegerKeyCannotBeReadAtStartAndIsThenJudgedByTheIntegerRules) {
    SetInt(kWatched, 7);
    ZOLVconfMonitor item = StringItem("GREATER", "on");
    item.intValue = 6;
    Watch({item});
    ExpectErrors({"> vconf_get_str() fail"});

    SetInt(kWatched, 7);

    EXPECT_EQ(Reported(), Reports({"db/k=7"}));
}

TEST_F(KeyChange, AStringKeyIsJudgedByTheStringRulesWhateverTheItemSays) {
    ZOLVconfMonitor item = IntItem("IS", 5);
    item.strValue = "on";
    Watch({item});

    SetString(kWatched, "on");

    EXPECT_EQ(Reported(), Reports({"db/k=on"}));
}

TEST_F(KeyChange, AKeyThatWasRemovedIsIgnored) {
    SetInt(kWatched, 5);
    Watch({IntItem("NOT", 5)});

    fakes::vconf::Unset(kWatched);

    EXPECT_EQ(m_notify.VconfEvents(), 0);
}

TEST_F(KeyChange, ABoolKeyIsIgnoredAlsoWhenItHoldsAnIntegerByTheTimeItIsTold) {
    const zol::KeyWatch quickWriter = zol::WatchKey(
        kWatched,
        [](keynode_t* node, void*) {
            if (vconf_keynode_get_type(node) == VCONF_TYPE_BOOL) {
                vconf_set_int(kWatched, 7);
            }
        },
        nullptr);
    Watch({IntItem("NOT", 5)});

    fakes::vconf::SetBool(kWatched, true);

    EXPECT_EQ(Reported(), Reports({"db/k=7"})) << "for the change to 7, and not for the one before it";
    EXPECT_EQ(Logged("find!"), 2);
    EXPECT_EQ(Logged("found on list!"), 1);
}

TEST_F(KeyChange, TheLastOfTenThousandItemsIsFound) {
    Items items;
    for (int number = 0; number < 10000; ++number) {
        items.push_back(IntItem("IS", number, "db/k" + std::to_string(number)));
    }
    Watch(items);
    EXPECT_EQ(Registrations(), 10001);

    SetInt("db/k9999", 9999);
    EXPECT_EQ(Reported(), Reports({"db/k9999=9999"}));

    m_checker.reset();
    EXPECT_EQ(Registrations(), 1);
}

TEST_F(CheckerLife, ItemsThatShareAKeyAreRegisteredAndWithdrawnOnceEach) {
    Watch({IntItem("IS", 5), IntItem("IS", 6), IntItem("IS", 7)});
    EXPECT_EQ(Registrations(kWatched), 3);

    m_checker.reset();
    EXPECT_EQ(Registrations(kWatched), 0);
}

TEST_F(CheckerLife, DestroyEndsTheTaskAndKeepsWatching) {
    Watch({IntItem("IS", 5)});

    m_checker->Destroy();
    SetInt(kWatched, 5);

    EXPECT_FALSE(m_checker->CCTask::FlagCreate());
    EXPECT_EQ(Reported(), Reports({"db/k=5"}));
}

TEST_F(CheckerLife, AHandlerThatCannotBeBoundIsLoggedAndTheTaskIsUndone) {
    TCVconfChecker other(nullptr, std::vector<ZOLVconfMonitor>());
    ASSERT_TRUE(other.Create());
    TCVconfChecker checker(nullptr, std::vector<ZOLVconfMonitor>());
    ASSERT_TRUE(checker.CCHandler::Create(&other));

    EXPECT_FALSE(checker.Create());

    EXPECT_FALSE(checker.CCTask::FlagCreate());
    EXPECT_EQ(Logged("_CHECK FAIL: zol/src/ZOLVconfChecker:"), 1);
    EXPECT_EQ(Logged(", CCHandler::Create(this)"), 1);
    checker.CCHandler::Destroy();
}

TEST_F(CheckerLife, ChangesThatArriveWhileItIsDestroyedDoNoHarm) {
    for (int round = 0; round < 20; ++round) {
        Watch({IntItem("IS", 7), StringItem("odd word", "x")});
        std::atomic<bool> stop{false};
        std::thread changes([&stop] {
            for (int value = 0; !stop; ++value) {
                SetInt(kWatched, value % 2);
            }
        });
        ASSERT_TRUE(Eventually([round] { return Logged("find!") > round; }));
        m_checker.reset();
        stop = true;
        changes.join();
    }

    EXPECT_EQ(Registrations(kWatched), 0);
}

}  // namespace
