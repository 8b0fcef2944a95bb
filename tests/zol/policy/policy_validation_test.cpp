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

TEST(VconfItems, EveryIntegerConditionButBetweenNeedsAnIntegerValue) {
    for (const char* condition : {"IS", "NOT", "GREATER", "LESS"}) {
        ZOLVconfMonitor item = Item(condition, "INT");
        item.greater = 10;
        EXPECT_EQ(CheckVconfPolicy(item), EPolicyFault::NO_INT_VALUE) << condition;
        for (const int value : {0, -2}) {
            item.intValue = value;
            EXPECT_EQ(CheckVconfPolicy(item), EPolicyFault::NONE) << condition;
        }
    }
}

TEST(VconfItems, BetweenIsKeptUnlessBothBoundsAreMissing) {
    EXPECT_EQ(CheckVconfPolicy(Between(-1, 7)), EPolicyFault::NONE);
    EXPECT_EQ(CheckVconfPolicy(Between(7, -1)), EPolicyFault::NONE);
    EXPECT_EQ(CheckVconfPolicy(Between(5, 15)), EPolicyFault::NONE);
    EXPECT_EQ(CheckVconfPolicy(Between(-1, -1)), EPolicyFault::NO_BOUNDS);
}

TEST(VconfItems, AStringCanOnlyBeOrNotBeAValueEvenAnEmptyOne) {
    for (const std::string condition : {"IS", "NOT", "GREATER", "LESS", "BETWEEN"}) {
        ZOLVconfMonitor item = Item(condition, "STRING");
        item.intValue = item.greater = item.less = 5;
        const bool isComparable = condition == "IS" || condition == "NOT";
        EXPECT_EQ(CheckVconfPolicy(item) == EPolicyFault::NO_STR_VALUE, isComparable) << condition;
        for (const char* value : {"on", ""}) {
            item.strValue = value;
            EXPECT_EQ(CheckVconfPolicy(item),
                      isComparable ? EPolicyFault::NONE : EPolicyFault::STRING_CONDITION)
                << condition;
        }
    }
}

TEST(MonitorItems, EachTypeTakesItsOwnMethodsAndAnApplicationItsIdAndName) {
    struct {
        int type;
        int method;
        const char* id;
        const char* name;
        EPolicyFault fault;
    } const cases[] = {
        {1, 11, "org.app", "App", EPolicyFault::NONE},
        {1, 21, "", "", EPolicyFault::APP_INSTALL_METHOD},
        {1, 11, "", "", EPolicyFault::NO_ID},
        {1, 11, "org.app", "", EPolicyFault::NO_NAME},
        {2, 21, "org.app", "App", EPolicyFault::NONE},
        {2, 11, "", "", EPolicyFault::APP_LAUNCH_METHOD},
        {2, 21, "", "App", EPolicyFault::NO_ID},
        {2, 21, "org.app", "", EPolicyFault::NO_NAME},
        {3, 31, "", "", EPolicyFault::NONE},
        {3, 32, "", "", EPolicyFault::NONE},
        {3, 33, "", "", EPolicyFault::BT_PAIR_METHOD},
        {0, 11, "org.app", "App", EPolicyFault::MONITORING_TYPE},
        {-7, 11, "org.app", "App", EPolicyFault::MONITORING_TYPE},
    };
    for (const auto& [type, method, id, name, fault] : cases) {
        EXPECT_EQ(CheckMonitorPolicy(Monitor(type, method, id, name)), fault) << type << " " << method << id;
    }
}

}  // namespace
