#include "ParseBudget.h"

#include <gtest/gtest.h>

namespace {

TEST(ParseBudget, WhatIsReadMayTakeExactlyAsMuchAsTheBudget) {
    constexpr std::size_t kAttribute = 16;
    constexpr std::size_t kOpenElement = 128;
    constexpr std::size_t kItem = 160;
    zol::TCParseBudget budget;

    EXPECT_TRUE(budget.AddAttribute(zol::kMaxRecordBytes - 2 * kAttribute - kOpenElement - 1));
    EXPECT_TRUE(budget.OpenElement("e"));
    EXPECT_TRUE(budget.AddAttribute(0));
    EXPECT_FALSE(budget.AddAttribute(0));

    zol::TCParseBudget other;
    EXPECT_TRUE(other.AddAttribute(zol::kMaxRecordBytes - kAttribute - kItem));
    EXPECT_TRUE(other.OpenElement("e"));
    other.CloseElement("e");
    EXPECT_TRUE(other.AddItem()) << "what the element was charged is given back";
    EXPECT_FALSE(other.OpenElement(""));
}

}  // namespace
