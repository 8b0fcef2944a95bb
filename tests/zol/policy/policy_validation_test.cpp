#include "PolicyValidation.h"

#include <gtest/gtest.h>

#include <string>

#include "dlog.h"
#include "fake_dlog.h"
#include "fakes.h"

namespace {

using zol::IsMonitorPolicyValid;
using zol::IsVconfPolicyValid;
using zol::ZOLPolicyMonitor;
using zol::ZOLVconfMonitor;

class Validation : public testing::Test {
protected:
    Validation() { fakes::Reset(); }
};
using VconfItems = Validation;
using MonitorItems = Validation;

ZOLVconfMonitor Item(const std::string& condition, const std::string& type) {
    ZOLVconfMonitor item;
    item.key = "db/key";
    item.condition = condition;
    item.type = type;
    return item;
}

ZOLVconfMonitor Between(int greater, int less) {
    ZOLVconfMonitor item = Item("BETWEEN", "INT");
    item.greater = greater;
    item.less = less;
    return item;
}

ZOLPolicyMonitor Monitor(int type, int method, const std::string& id, const std::string& name) {
    ZOLPolicyMonitor item;
    item.type = type;
    item.method = method;
    item.id = id;
    item.name = name;
    return item;
}

void ExpectRefused(const ZOLPolicyMonitor& item, const std::string& reason) {
    fakes::dlog::Clear();
    EXPECT_FALSE(IsMonitorPolicyValid(item));
    ASSERT_EQ(fakes::dlog::Lines().size(), 1U);
    EXPECT_TRUE(fakes::dlog::Has(reason)) << reason;
    EXPECT_EQ(fakes::dlog::Find(reason).priority, DLOG_PRIORITY_ERROR);
}

TEST_F(Validation, WordsHaveTheirCodesAndAnyOtherWordHasZero) {
    const std::map<std::string, int> conditions{{"IS", 1},   {"NOT", 2},     {"GREATER", 3},
                                                {"LESS", 4}, {"BETWEEN", 5}, {"is", 0},
                                                {"", 0},     {"IS ", 0},     {"EQUALS", 0}};
    for (const auto& [word, code] : conditions) {
        EXPECT_EQ(zol::CodeOf(zol::ConditionCodes(), word), code) << word;
    }
    const std::map<std::string, int> types{{"INT", 1}, {"STRING", 2}, {"int", 0}, {"BOOL", 0}, {"", 0}};
    for (const auto& [word, code] : types) {
        EXPECT_EQ(zol::CodeOf(zol::ValueTypeCodes(), word), code) << word;
    }
}

TEST_F(VconfItems, AnUnknownConditionOrTypeIsRefusedWithoutALine) {
    ZOLVconfMonitor item = Item("is", "INT");
    item.intValue = 3;
    EXPECT_FALSE(IsVconfPolicyValid(item));
    item = Item("IS", "FLOAT");
    item.intValue = 3;
    item.strValue = "x";
    EXPECT_FALSE(IsVconfPolicyValid(item));

    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(VconfItems, GreaterWithABoundButNoIntegerValueIsRefused) {
    ZOLVconfMonitor item = Item("GREATER", "INT");
    item.greater = 10;
    EXPECT_FALSE(IsVconfPolicyValid(item));
}

TEST_F(VconfItems, EveryIntegerConditionButBetweenNeedsAnIntegerValue) {
    for (const char* condition : {"IS", "NOT", "GREATER", "LESS"}) {
        ZOLVconfMonitor item = Item(condition, "INT");
        EXPECT_FALSE(IsVconfPolicyValid(item)) << condition;
        item.intValue = 0;
        EXPECT_TRUE(IsVconfPolicyValid(item)) << condition;
        item.intValue = -2;
        EXPECT_TRUE(IsVconfPolicyValid(item)) << condition;
    }
}

TEST_F(VconfItems, BetweenIsKeptUnlessBothBoundsAreMissing) {
    EXPECT_TRUE(IsVconfPolicyValid(Between(-1, 7)));
    EXPECT_TRUE(IsVconfPolicyValid(Between(7, -1)));
    EXPECT_TRUE(IsVconfPolicyValid(Between(5, 15)));
    EXPECT_FALSE(IsVconfPolicyValid(Between(-1, -1)));
}

TEST_F(VconfItems, AStringWithoutAValueIsRefused) {
    EXPECT_FALSE(IsVconfPolicyValid(Item("IS", "STRING")));
    EXPECT_FALSE(IsVconfPolicyValid(Item("NOT", "STRING")));
}

TEST_F(VconfItems, AStringCanOnlyBeOrNotBeAValue) {
    for (const char* condition : {"IS", "NOT", "GREATER", "LESS", "BETWEEN"}) {
        ZOLVconfMonitor item = Item(condition, "STRING");
        item.strValue = "on";
        item.intValue = item.greater = item.less = 5;
        const bool isComparable = condition == std::string("IS") || condition == std::string("NOT");
        EXPECT_EQ(IsVconfPolicyValid(item), isComparable) << condition;
    }
}

TEST_F(VconfItems, AnEmptyStringIsAValue) {
    ZOLVconfMonitor item = Item("IS", "STRING");
    item.strValue = "";
    EXPECT_TRUE(IsVconfPolicyValid(item));
}

TEST_F(VconfItems, AcceptanceIsLogged) {
    EXPECT_TRUE(IsVconfPolicyValid(Between(5, 15)));
    EXPECT_EQ(fakes::dlog::Count("bye"), 1);
    EXPECT_EQ(fakes::dlog::Find("bye").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(MonitorItems, EachTypeTakesItsOwnMethods) {
    EXPECT_TRUE(IsMonitorPolicyValid(Monitor(1, 11, "org.app", "App")));
    EXPECT_TRUE(IsMonitorPolicyValid(Monitor(2, 21, "org.app", "App")));
    EXPECT_TRUE(IsMonitorPolicyValid(Monitor(3, 31, "", "")));
    EXPECT_TRUE(IsMonitorPolicyValid(Monitor(3, 32, "", "")));
}

TEST_F(MonitorItems, APairingMonitorWithAnotherMethodIsRefusedWithTheMethod) {
    ExpectRefused(Monitor(3, 33, "", ""), "ZOL_BT_PAIR, method is not valid [33]");
}

TEST_F(MonitorItems, AnInstallMonitorSaysWhatItLacksMethodFirst) {
    ExpectRefused(Monitor(1, 21, "", ""), "APP_INSTALL, method is not valid [21]");
    ExpectRefused(Monitor(1, 11, "", ""), "APP_INSTALL, id is null or empty.");
    ExpectRefused(Monitor(1, 11, "org.app", ""), "APP_INSTALL, name is null or empty.");
}

TEST_F(MonitorItems, ALaunchMonitorSaysWhatItLacksInTheWordsOfAnInstall) {
    ExpectRefused(Monitor(2, 11, "", ""), "APP_LAUNCH, method is not valid [11]");
    ExpectRefused(Monitor(2, 21, "", "App"), "APP_INSTALL, id is null or empty.");
    ExpectRefused(Monitor(2, 21, "org.app", ""), "APP_INSTALL, name is null or empty.");
}

TEST_F(MonitorItems, AnUnknownTypeIsRefusedWithItsNumber) {
    ExpectRefused(Monitor(0, 11, "org.app", "App"), "MonitoringType is not valid [0]");
    ExpectRefused(Monitor(-7, 11, "org.app", "App"), "MonitoringType is not valid [-7]");
}

TEST_F(MonitorItems, AnAcceptedOneIsLoggedBetweenTwoEmptyLines) {
    ZOLPolicyMonitor item = Monitor(1, 11, "org.app", "App");
    item.duration = 60;
    item.repetition = 3;
    ASSERT_TRUE(IsMonitorPolicyValid(item));

    const char* const expected[] = {"> ",
                                    "> type : 1",
                                    "> Id : org.app",
                                    "> Name : App",
                                    "> method : 11",
                                    "> duration : 60",
                                    "> reptition : 3",
                                    "> "};
    const auto lines = fakes::dlog::Lines();
    ASSERT_EQ(lines.size(), 8U);
    for (std::size_t line = 0; line < lines.size(); ++line) {
        const std::string& text = lines[line].text;
        EXPECT_EQ(text.substr(text.find("> ")), expected[line]);
        EXPECT_EQ(lines[line].priority, DLOG_PRIORITY_INFO);
    }
}

}  // namespace
