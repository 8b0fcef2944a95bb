#include "ZOLVconfChecker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "ZOLNotifyManager.h"
#include "dlog.h"
#include "fake_dlog.h"
#include "fake_vconf.h"
#include "fakes.h"

namespace {

using zol::TCVconfChecker;
using zol::ZOLVconfMonitor;
using Items = std::vector<ZOLVconfMonitor>;

constexpr const char* kKey = "db/k";

ZOLVconfMonitor IntItem(const char* condition, int value, const std::string& key = kKey) {
    ZOLVconfMonitor item;
    item.key = key;
    item.type = "INT";
    item.condition = condition;
    item.intValue = value;
    return item;
}

ZOLVconfMonitor BetweenItem(int greater, int less) {
    ZOLVconfMonitor item = IntItem("BETWEEN", -1);
    item.greater = greater;
    item.less = less;
    return item;
}

ZOLVconfMonitor StringItem(const char* condition, const char* text, const std::string& key = kKey) {
    ZOLVconfMonitor item;
    item.key = key;
    item.type = "STRING";
    item.condition = condition;
    item.strValue = text;
    return item;
}

class VconfChecker : public testing::Test {
protected:
    VconfChecker() {
        fakes::Reset();
        m_notify = std::make_unique<TCNotifyManager>();
        EXPECT_TRUE(m_notify->Create());
    }
    ~VconfChecker() override { m_checker.reset(); }

    /// The policy's items are checked once when this returns.
    void Watch(const Items& items) { Watch(items, m_notify.get()); }
    void Watch(const Items& items, TCNotifyManager* notify) {
        m_checker = std::make_unique<TCVconfChecker>(notify, items);
        ASSERT_TRUE(m_checker->Create());
        m_checker->CheckNow(items);
    }

    /// Whether an item holds at start for this value of its key.
    bool HoldsAtStart(const ZOLVconfMonitor& item, int value) {
        fakes::vconf::SetInt(item.key, value);
        return HitsAtStart(item) == 1;
    }
    bool HoldsAtStart(const ZOLVconfMonitor& item, const char* value) {
        fakes::vconf::SetString(item.key, value);
        return HitsAtStart(item) == 1;
    }
    int HitsAtStart(const ZOLVconfMonitor& item) {
        const int before = Hits();
        Watch({item});
        m_checker.reset();
        return Hits() - before;
    }

    /// Hits that were handed to the notify manager, all or those with this content.
    static int Hits(const std::string& part = "") {
        int count = 0;
        for (const fakes::LogLine& line : fakes::dlog::Lines()) {
            const bool isHit = line.text.find("AddNotify(") != std::string::npos;
            count += isHit && line.text.find(part) != std::string::npos ? 1 : 0;
        }
        return count;
    }

    /// Events that reached the notify manager's task.
    int Events() {
        EXPECT_TRUE(m_notify->Ping(10000));
        return fakes::dlog::Count("event->type is NOTIFY_ZOL_VCONF");
    }

    std::unique_ptr<TCNotifyManager> m_notify;
    std::unique_ptr<TCVconfChecker> m_checker;
};

using IntegerRules = VconfChecker;
using StringRules = VconfChecker;
using CheckAtStart = VconfChecker;
using KeyChange = VconfChecker;
using CheckerLife = VconfChecker;

TEST_F(IntegerRules, BetweenExcludesBothBounds) {
    const ZOLVconfMonitor item = BetweenItem(10, 20);

    EXPECT_FALSE(HoldsAtStart(item, 10));
    EXPECT_TRUE(HoldsAtStart(item, 11));
    EXPECT_TRUE(HoldsAtStart(item, 19));
    EXPECT_FALSE(HoldsAtStart(item, 20));
}

TEST_F(IntegerRules, ABetweenHitIsReportedAsMinusOneAndNull) {
    fakes::vconf::SetInt(kKey, 15);

    Watch({BetweenItem(10, 20)});

    EXPECT_EQ(Hits("key[db/k], intValue[-1], strValue[null]"), 1);
    EXPECT_EQ(
        fakes::dlog::Find("[m_CheckIntType] greater[10] < vconfValue[15] < less[20], send event to notify")
            .priority,
        DLOG_PRIORITY_ERROR);
}

TEST_F(IntegerRules, GreaterIsStrict) {
    EXPECT_FALSE(HoldsAtStart(IntItem("GREATER", 5), 5));
    EXPECT_TRUE(HoldsAtStart(IntItem("GREATER", 5), 6));
}

TEST_F(IntegerRules, LessIsStrict) {
    EXPECT_TRUE(HoldsAtStart(IntItem("LESS", 5), 4));
    EXPECT_FALSE(HoldsAtStart(IntItem("LESS", 5), 5));
}

TEST_F(IntegerRules, IsAndNotCompareExactly) {
    EXPECT_TRUE(HoldsAtStart(IntItem("IS", 5), 5));
    EXPECT_FALSE(HoldsAtStart(IntItem("IS", 5), -5));
    EXPECT_TRUE(HoldsAtStart(IntItem("NOT", 5), 4));
    EXPECT_FALSE(HoldsAtStart(IntItem("NOT", 5), 5));
}

TEST_F(IntegerRules, EachHitIsLoggedWithBothValuesAndReportsTheValueRead) {
    const struct {
        const char* condition;
        int read;
        const char* text;
    } cases[] = {{"IS", 5, "[m_CheckIntType] vconfValue[5] == value[5], send event to notify"},
                 {"NOT", 4, "[m_CheckIntType] vconfValue[4] != value[5], send event to notify"},
                 {"GREATER", 6, "[m_CheckIntType] vconfValue[6] > value[5], send event to notify"},
                 {"LESS", 3, "[m_CheckIntType] vconfValue[3] < value[5], send event to notify"}};
    for (const auto& one : cases) {
        EXPECT_TRUE(HoldsAtStart(IntItem(one.condition, 5), one.read)) << one.condition;
        EXPECT_EQ(fakes::dlog::Find(one.text).priority, DLOG_PRIORITY_ERROR) << one.condition;
        EXPECT_EQ(Hits("intValue[" + std::to_string(one.read) + "], strValue[null]"), 1) << one.condition;
    }
}

TEST_F(IntegerRules, AConditionInLowerCaseIsCodeZeroAndNeverHolds) {
    EXPECT_FALSE(HoldsAtStart(IntItem("is", 5), 5));

    EXPECT_EQ(fakes::dlog::Find("[m_CheckIntType] condition[0]").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(IntegerRules, AnUnknownTypeWordIsTreatedAsAnInteger) {
    ZOLVconfMonitor item = IntItem("IS", 5);
    item.type = "DOUBLE";

    EXPECT_TRUE(HoldsAtStart(item, 5));
}

TEST_F(StringRules, IsAndNotCompareExactly) {
    EXPECT_TRUE(HoldsAtStart(StringItem("IS", "on"), "on"));
    EXPECT_FALSE(HoldsAtStart(StringItem("IS", "on"), "On"));
    EXPECT_TRUE(HoldsAtStart(StringItem("NOT", "on"), "on "));
    EXPECT_FALSE(HoldsAtStart(StringItem("NOT", "on"), "on"));
}

TEST_F(StringRules, TheOtherConditionsAndUnknownWordsNeverHold) {
    for (const char* condition : {"GREATER", "LESS", "BETWEEN", "is", ""}) {
        EXPECT_FALSE(HoldsAtStart(StringItem(condition, "on"), "on")) << condition;
        EXPECT_FALSE(HoldsAtStart(StringItem(condition, "on"), "off")) << condition;
    }
}

TEST_F(StringRules, AHitIsLoggedAndReportsTheTextRead) {
    EXPECT_TRUE(HoldsAtStart(StringItem("IS", "on"), "on"));
    EXPECT_TRUE(HoldsAtStart(StringItem("NOT", "on"), "off"));

    for (const char* text : {"[m_CheckStringType] vconfValue[on] condition[1] strValue[on]",
                             "[m_CheckStringType] vconfValue[on] == strValue[on], send event to notify",
                             "[m_CheckStringType] vconfValue[off] != strValue[on], send event to notify"}) {
        EXPECT_EQ(fakes::dlog::Find(text).priority, DLOG_PRIORITY_ERROR) << text;
    }
    EXPECT_EQ(Hits("intValue[-1], strValue[off]"), 1);
}

TEST_F(CheckAtStart, AStringItemOnAnIntegerKeyCannotBeRead) {
    fakes::vconf::SetInt(kKey, 5);

    Watch({StringItem("NOT", "on")});

    EXPECT_EQ(fakes::dlog::Find("vconf_get_str() fail").priority, DLOG_PRIORITY_ERROR);
    EXPECT_EQ(Hits(), 0);
    EXPECT_EQ(fakes::vconf::Registrations(kKey), 1);
}

TEST_F(KeyChange, AStringItemOnAnIntegerKeyIsJudgedByTheIntegerRules) {
    fakes::vconf::SetInt(kKey, 5);
    ZOLVconfMonitor item = StringItem("GREATER", "on");
    item.intValue = 6;
    Watch({item});

    fakes::vconf::SetInt(kKey, 7);

    EXPECT_EQ(Hits("intValue[7], strValue[null]"), 1);
    EXPECT_EQ(Events(), 1);
}

TEST_F(CheckAtStart, AnItemThatHoldsIsReportedOnceAndNotWatched) {
    fakes::vconf::SetInt(kKey, 5);

    Watch({IntItem("IS", 5)});
    EXPECT_EQ(fakes::vconf::Registrations(kKey), 0);

    fakes::vconf::SetInt(kKey, 5);
    EXPECT_EQ(Hits(), 1);
    EXPECT_EQ(Events(), 1);
}

TEST_F(KeyChange, OnlyTheFirstItemOfAKeyIsEvaluated) {
    fakes::vconf::SetInt(kKey, 5);
    Watch({IntItem("IS", 5), IntItem("GREATER", 6)});
    EXPECT_EQ(Hits(), 1);
    EXPECT_EQ(fakes::vconf::Registrations(kKey), 1) << "for the second item";

    fakes::vconf::SetInt(kKey, 7);
    EXPECT_EQ(Hits(), 1) << "the second item would hold";

    fakes::vconf::SetInt(kKey, 5);
    EXPECT_EQ(Hits("intValue[5]"), 2) << "the first item, seen because the second is registered";
}

TEST_F(CheckAtStart, TwoItemsThatHoldAreTwoHitsAndOneEvent) {
    fakes::vconf::SetInt("db/a", 1);
    fakes::vconf::SetString("db/b", "on");

    Watch({IntItem("IS", 1, "db/a"), StringItem("IS", "on", "db/b")});

    EXPECT_EQ(Hits(), 2);
    EXPECT_EQ(Events(), 1);
    EXPECT_EQ(fakes::dlog::Find("m_Notify() CALL").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(CheckAtStart, AnEmptyListRegistersAndPostsNothing) {
    Watch({});

    EXPECT_EQ(Events(), 0);
    EXPECT_FALSE(fakes::dlog::Has("m_Notify() CALL"));
    EXPECT_EQ(fakes::vconf::Registrations(), 1) << "the notify manager's own";
}

TEST_F(CheckAtStart, AKeyThatCannotBeReadIsWatchedAllTheSame) {
    Watch({IntItem("IS", 5)});
    EXPECT_EQ(fakes::dlog::Find("vconf_get_int() fail").priority, DLOG_PRIORITY_ERROR);
    EXPECT_EQ(fakes::dlog::Find("[db/k] registered").priority, DLOG_PRIORITY_ERROR);

    fakes::vconf::SetInt(kKey, 5);
    EXPECT_EQ(Hits("intValue[5]"), 1);
}

TEST_F(CheckAtStart, AKeyThatCannotBeWatchedIsLogged) {
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_NOTIFY);

    Watch({IntItem("IS", 5)});

    EXPECT_EQ(fakes::dlog::Find("[db/k] failed").priority, DLOG_PRIORITY_ERROR);
    EXPECT_FALSE(fakes::dlog::Has("[db/k] registered"));
}

TEST_F(CheckAtStart, WithoutANotifyManagerHitsAreLost) {
    fakes::vconf::SetInt(kKey, 5);

    Watch({IntItem("IS", 5)}, nullptr);

    EXPECT_EQ(fakes::dlog::Find("m_pNotify is NULL").priority, DLOG_PRIORITY_ERROR);
    EXPECT_EQ(Hits(), 0);
}

TEST_F(CheckAtStart, ANotifyManagerThatDoesNotRunTakesNoEvent) {
    fakes::vconf::SetInt(kKey, 5);
    TCNotifyManager idle;

    Watch({IntItem("IS", 5)}, &idle);
    m_checker.reset();

    EXPECT_EQ(fakes::dlog::Find("Send() fail").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(KeyChange, AHitIsHandedOverAndPosted) {
    fakes::vconf::SetInt(kKey, 1);
    Watch({IntItem("IS", 5)});
    EXPECT_EQ(Events(), 0);

    fakes::vconf::SetInt(kKey, 5);

    EXPECT_EQ(Hits("key[db/k], intValue[5], strValue[null]"), 1);
    EXPECT_EQ(Events(), 1);
    for (const char* text : {"[m_KeyChangedCb] key : db/k", "find!", "found on list!"}) {
        EXPECT_EQ(fakes::dlog::Find(text).priority, DLOG_PRIORITY_ERROR) << text;
    }
}

TEST_F(KeyChange, EveryFurtherHitIsReportedToo) {
    fakes::vconf::SetInt(kKey, 1);
    Watch({IntItem("IS", 5)});

    fakes::vconf::SetInt(kKey, 5);
    fakes::vconf::SetInt(kKey, 5);

    EXPECT_EQ(Hits(), 2);
    EXPECT_EQ(Events(), 2);
}

TEST_F(KeyChange, AChangeThatDoesNotHoldPostsNothing) {
    fakes::vconf::SetInt(kKey, 1);
    Watch({IntItem("IS", 5)});

    fakes::vconf::SetInt(kKey, 4);

    EXPECT_TRUE(fakes::dlog::Has("find!"));
    EXPECT_FALSE(fakes::dlog::Has("found on list!"));
    EXPECT_EQ(Events(), 0);
}

TEST_F(KeyChange, AKeyOfAnotherTypeOrRemovedIsIgnored) {
    Watch({IntItem("NOT", 5)});

    fakes::vconf::SetBool(kKey, true);
    fakes::vconf::Unset(kKey);

    EXPECT_EQ(fakes::dlog::Count("find!"), 2);
    EXPECT_EQ(Hits(), 0);
}

TEST_F(KeyChange, AStringKeyIsJudgedByTheStringRulesWhateverTheItemSays) {
    ZOLVconfMonitor item = IntItem("IS", 5);
    item.strValue = "on";
    Watch({item});

    fakes::vconf::SetString(kKey, "on");

    EXPECT_EQ(Hits("intValue[-1], strValue[on]"), 1);
}

TEST_F(KeyChange, TheLastOfTenThousandItemsIsFound) {
    Items items;
    for (int number = 0; number < 10000; ++number) {
        items.push_back(IntItem("IS", number, "db/k" + std::to_string(number)));
    }
    Watch(items);
    EXPECT_EQ(fakes::vconf::Registrations(), 10001);

    fakes::vconf::SetInt("db/k9999", 9999);
    EXPECT_EQ(Hits("key[db/k9999], intValue[9999]"), 1);

    m_checker.reset();
    EXPECT_EQ(fakes::vconf::Registrations(), 1);
}

TEST_F(CheckerLife, ItemsThatShareAKeyAreRegisteredAndWithdrawnOnceEach) {
    Watch({IntItem("IS", 5), IntItem("IS", 6), IntItem("IS", 7)});
    EXPECT_EQ(fakes::vconf::Registrations(kKey), 3);

    m_checker.reset();
    EXPECT_EQ(fakes::vconf::Registrations(kKey), 0);
}

TEST_F(CheckerLife, DestroyEndsTheTaskAndKeepsWatching) {
    fakes::vconf::SetInt(kKey, 1);
    Watch({IntItem("IS", 5)});

    m_checker->Destroy();
    fakes::vconf::SetInt(kKey, 5);

    EXPECT_EQ(Hits(), 1);
    EXPECT_EQ(fakes::vconf::Registrations(kKey), 1);
}

TEST_F(CheckerLife, AfterShutdownNothingIsReported) {
    fakes::vconf::SetInt(kKey, 1);
    Watch({IntItem("IS", 5)});

    m_checker->Shutdown();
    m_checker->Shutdown();
    fakes::vconf::SetInt(kKey, 5);

    EXPECT_EQ(Hits(), 0);
    EXPECT_EQ(fakes::vconf::Registrations(kKey), 0);
}

TEST_F(CheckerLife, ItsLifeIsLogged) {
    Watch({});
    EXPECT_STREQ(m_checker->Name(), "ZOLVconfChecker");
    m_checker.reset();

    for (const char* text : {"[TCVconfChecker] Create", "[TCVconfChecker] Created",
                             "[TCVconfChecker] Destroy", "[TCVconfChecker] Destroyed"}) {
        EXPECT_EQ(fakes::dlog::Find(text).priority, DLOG_PRIORITY_INFO) << text;
    }
}

TEST_F(CheckerLife, AHandlerThatCannotBeBoundIsLoggedAndTheTaskIsUndone) {
    fakes::WriteDeviceFile("/etc/release", "");
    TCVconfChecker other(nullptr, {});
    ASSERT_TRUE(other.Create());
    TCVconfChecker checker(nullptr, {});
    ASSERT_TRUE(checker.CCHandler::Create(&other));

    EXPECT_FALSE(checker.Create());

    EXPECT_EQ(fakes::dlog::Count("_CHECK FAIL: zol/src/ZOLVconfChecker:"), 1);
    EXPECT_TRUE(fakes::dlog::Has(", CCHandler::Create(this)"));
    EXPECT_FALSE(checker.CCTask::FlagCreate());
    checker.CCHandler::Destroy();
}

TEST_F(CheckerLife, ItsTaskHandlesNothing) {
    Watch({});

    CSEvent event;
    event.type = 77;
    EXPECT_TRUE(m_checker->t_OnEvent(&event));
    EXPECT_TRUE(m_checker->t_OnEvent(nullptr));
}

TEST_F(CheckerLife, ChangesThatArriveWhileItIsDestroyedDoNoHarm) {
    std::atomic<bool> stop{false};
    std::thread changes([&stop] {
        for (int value = 0; !stop; ++value) {
            fakes::vconf::SetInt(kKey, value % 2);
        }
    });
    for (int round = 0; round < 20; ++round) {
        Watch({IntItem("IS", 7), StringItem("odd word", "x")});
        m_checker.reset();
    }
    stop = true;
    changes.join();

    EXPECT_EQ(fakes::vconf::Registrations(kKey), 0);
}

TEST_F(CheckerLife, UnknownWordsMayBeLookedUpOnTwoThreads) {
    fakes::vconf::SetInt(kKey, 1);
    fakes::vconf::SetInt("db/other", 1);
    const Items items = {IntItem("strange", 5), IntItem("stranger", 5, "db/other")};
    m_checker = std::make_unique<TCVconfChecker>(m_notify.get(), items);
    ASSERT_TRUE(m_checker->Create());
    m_checker->CheckNow({items[0]});

    std::thread change([] { fakes::vconf::SetInt(kKey, 5); });
    m_checker->CheckNow({items[1]});
    change.join();

    EXPECT_EQ(Hits(), 0);
}

}  // namespace
