#include "PolicyValidation.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "PolicyWords.h"

namespace {

using zol::CheckMonitorPolicy;
using zol::CheckVconfPolicy;
using zol::EPolicyFault;
using zol::ZOLPolicyMonitor;
using zol::ZOLVconfMonitor;

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

TEST(PolicyWords, HaveTheirCodesAndAnyOtherWordHasZero) {
    const std::map<std::string, int> conditions{{"IS", 1},   {"NOT", 2},     {"GREATER", 3},
                                                {"LESS", 4}, {"BETWEEN", 5}, {"is", 0},
                                                {"", 0},     {"IS ", 0},     {"EQUALS", 0}};
    for (const auto& [word, code] : conditions) {
        EXPECT_EQ(zol::CodeOf(zol::kConditionWords, word), code) << word;
    }
    const std::map<std::string, int> types{{"INT", 1}, {"STRING", 2}, {"int", 0}, {"BOOL", 0}, {"", 0}};
    for (const auto& [word, code] : types) {
        EXPECT_EQ(zol::CodeOf(zol::kValueTypeWords, word), code) << word;
    }
}

TEST(VconfItems, AnUnknownConditionOrTypeIsRefused) {
    ZOLVconfMonitor item = Item("is", "INT");
    item.intValue = 3;
    EXPECT_EQ(CheckVconfPolicy(item), EPolicyFault::CONDITION);
    item = Item("IS", "FLOAT");
    item.intValue = 3;
    item.strValue = "x";
    EXPECT_EQ(CheckVconfPolicy(item), EPolicyFault::VALUE_TYPE);
    item = Item("is", "FLOAT");
    EXPECT_EQ(CheckVconfPolicy(item), EPolicyFault::CONDITION) << "the first fault counts";
}

TEST(VconfItems, GreaterWithABoundButNoIntegerValueIsRefused) {
    ZOLVconfMonitor item = Item("GREATER", "INT");
    item.greater = 10;
    EXPECT_EQ(CheckVconfPolicy(item), EPolicyFault::NO_INT_VALUE);
}

TEST(VconfItems, EveryIntegerConditionButBetweenNeedsAnIntegerValue) {
    for (const char* condition : {"IS", "NOT", "GREATER", "LESS"}) {
        ZOLVconfMonitor item = Item(condition, "INT");
        EXPECT_EQ(CheckVconfPolicy(item), EPolicyFault::NO_INT_VALUE) << condition;
        item.intValue = 0;
        EXPECT_EQ(CheckVconfPolicy(item), EPolicyFault::NONE) << condition;
        item.intValue = -2;
        EXPECT_EQ(CheckVconfPolicy(item), EPolicyFault::NONE) << condition;
    }
}

TEST(VconfItems, BetweenIsKeptUnlessBothBoundsAreMissing) {
    EXPECT_EQ(CheckVconfPolicy(Between(-1, 7)), EPolicyFault::NONE);
    EXPECT_EQ(CheckVconfPolicy(Between(7, -1)), EPolicyFault::NONE);
    EXPECT_EQ(CheckVconfPolicy(Between(5, 15)), EPolicyFault::NONE);
    EXPECT_EQ(CheckVconfPolicy(Between(-1, -1)), EPolicyFault::NO_BOUNDS);
}

TEST(VconfItems, AStringWithoutAValueIsRefused) {
    EXPECT_EQ(CheckVconfPolicy(Item("IS", "STRING")), EPolicyFault::NO_STR_VALUE);
    EXPECT_EQ(CheckVconfPolicy(Item("NOT", "STRING")), EPolicyFault::NO_STR_VALUE);
}

TEST(VconfItems, AStringCanOnlyBeOrNotBeAValue) {
    for (const char* condition : {"IS", "NOT", "GREATER", "LESS", "BETWEEN"}) {
        ZOLVconfMonitor item = Item(condition, "STRING");
        item.strValue = "on";
        item.intValue = item.greater = item.less = 5;
        const bool isComparable = condition == std::string("IS") || condition == std::string("NOT");
        EXPECT_EQ(CheckVconfPolicy(item), isComparable ? EPolicyFault::NONE : EPolicyFault::STRING_CONDITION)
            << condition;
    }
}

TEST(VconfItems, AnEmptyStringIsAValue) {
    ZOLVconfMonitor item = Item("IS", "STRING");
    item.strValue = "";
    EXPECT_EQ(CheckVconfPolicy(item), EPolicyFault::NONE);
}

TEST(MonitorItems, EachTypeTakesItsOwnMethods) {
    EXPECT_EQ(CheckMonitorPolicy(Monitor(1, 11, "org.app", "App")), EPolicyFault::NONE);
    EXPECT_EQ(CheckMonitorPolicy(Monitor(2, 21, "org.app", "App")), EPolicyFault::NONE);
    EXPECT_EQ(CheckMonitorPolicy(Monitor(3, 31, "", "")), EPolicyFault::NONE);
    EXPECT_EQ(CheckMonitorPolicy(Monitor(3, 32, "", "")), EPolicyFault::NONE);
}

TEST(MonitorItems, AnApplicationMonitorLacksMethodThenIdThenName) {
    EXPECT_EQ(CheckMonitorPolicy(Monitor(1, 21, "", "")), EPolicyFault::APP_INSTALL_METHOD);
    EXPECT_EQ(CheckMonitorPolicy(Monitor(1, 11, "", "")), EPolicyFault::NO_ID);
    EXPECT_EQ(CheckMonitorPolicy(Monitor(1, 11, "org.app", "")), EPolicyFault::NO_NAME);
    EXPECT_EQ(CheckMonitorPolicy(Monitor(2, 11, "", "")), EPolicyFault::APP_LAUNCH_METHOD);
    EXPECT_EQ(CheckMonitorPolicy(Monitor(2, 21, "", "App")), EPolicyFault::NO_ID);
    EXPECT_EQ(CheckMonitorPolicy(Monitor(2, 21, "org.app", "")), EPolicyFault::NO_NAME);
}

TEST(MonitorItems, APairingMonitorWithAnotherMethodIsRefused) {
    EXPECT_EQ(CheckMonitorPolicy(Monitor(3, 33, "", "")), EPolicyFault::BT_PAIR_METHOD);
}

TEST(MonitorItems, AnUnknownTypeIsRefused) {
    EXPECT_EQ(CheckMonitorPolicy(Monitor(0, 11, "org.app", "App")), EPolicyFault::MONITORING_TYPE);
    EXPECT_EQ(CheckMonitorPolicy(Monitor(-7, 11, "org.app", "App")), EPolicyFault::MONITORING_TYPE);
}

}  // namespace
