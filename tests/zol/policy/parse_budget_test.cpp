#include "ParseBudget.h"

#include <gtest/gtest.h>

#include <string>

#include "allocations.h"

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

TEST(ParseBudget, OfAParserIsGivenBackWhenTheParserIsFreed) {
    const std::string document = "<a b='" + std::string(1U << 20U, 'x') + "'/>";
    const long before = ThreadBlocksInUse();
    for (std::size_t parsed = 0; parsed <= zol::kMaxExpatBytes; parsed += document.size()) {
        const zol::XmlParserPtr parser = zol::CreateBoundedParser();
        XML_SetStartElementHandler(parser.get(),
                                   [](void*, const char*, const char**) {});  // or it keeps no value
        ASSERT_EQ(XML_Parse(parser.get(), document.data(), static_cast<int>(document.size()), XML_TRUE),
                  XML_STATUS_OK)
            << parsed;
    }
    EXPECT_EQ(ThreadBlocksInUse(), before) << "and so is the memory";
}

}  // namespace
