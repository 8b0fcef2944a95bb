#include "PolicyAttributes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace {

using zol::TCAttributes;
using zol::TCElements;

constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();

TCAttributes With(const std::string& value) {
    TCAttributes attributes;
    attributes.Insert("a", value);
    return attributes;
}

/// What a read leaves in a variable that held `before`.
template <typename Type>
Type Read(const std::string& value, Type before) {
    EXPECT_TRUE(With(value).GetValue("a", before)) << value;
    return before;
}

TEST(Attributes, NamesAreFoundInLowerCaseAndTheLastOfOneNameWins) {
    TCAttributes attributes;
    attributes.Insert("KEY", "first");
    attributes.Insert("key", "second");
    attributes.Insert("Key", "third");

    std::string text;
    EXPECT_TRUE(attributes.GetValue("key", text));
    EXPECT_EQ(text, "third");
    EXPECT_FALSE(attributes.GetValue("Key", text));
}

template <typename Type>
void ExpectLeftAlone(Type before) {
    Type value = before;
    EXPECT_FALSE(TCAttributes().GetValue("missing", value));
    EXPECT_EQ(value, before);
}

TEST(Attributes, AMissingNameIsFalseAndLeavesTheVariableAlone) {
    ExpectLeftAlone<std::string>("kept");
    ExpectLeftAlone<std::int32_t>(-1);
    ExpectLeftAlone<std::uint32_t>(4000000000U);
    ExpectLeftAlone<std::uint64_t>(99);
    ExpectLeftAlone<double>(1.5);
    ExpectLeftAlone<bool>(true);
    ExpectLeftAlone<bool>(false);
}

TEST(Attributes, AnIntegerIsReadUpToTheFirstOtherCharacterAndHeldInThirtyTwoBits) {
    const std::vector<std::pair<std::string, std::int32_t>> cases{
        {"12ab", 12},
        {" \t\n\v\f\r-8 9", -8},
        {"+3", 3},
        {"0x10", 0},
        {"1.9", 1},
        {"2147483647", kMax},
        {"2147483648", kMax},
        {"-2147483648", kMin},
        {"-2147483649", kMin},
        {std::string(1000, '9'), kMax},
        {"-" + std::string(1000, '9'), kMin},
        {std::string(1000, '0') + "5", 5},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(Read<std::int32_t>(text, 77), expected) << text;
        EXPECT_EQ(Read<std::uint32_t>(text, 77), static_cast<std::uint32_t>(expected)) << text;
    }
    for (const char* text : {"", "x7", "-", "+", "--1", "+ 1", "   ", "\302\2405"}) {
        EXPECT_EQ(Read<std::int32_t>(text, -1), -1) << text << " keeps the default";
        EXPECT_EQ(Read<std::uint32_t>(text, 17), 17U) << text;
    }
}

TEST(Attributes, ALongUnsignedNumberIsReadInThirtyTwoBitsOnEveryMachine) {
    const std::vector<std::pair<std::string, std::uint64_t>> cases{
        {"2592000", 2592000},
        {"4294967295", 4294967295},
        {"4294967296", 4294967295},
        {"18446744073709551616", 4294967295},
        {std::string(5000, '7'), 4294967295},
        {"-1", 4294967295},
        {"-2", 4294967294},
        {"-4294967295", 1},
        {"-4294967296", 4294967295},
        {"-0", 0},
        {"  12s", 12},
        {"abc", 0},
        {"", 0},
        {"-", 0},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(Read<std::uint64_t>(text, 77), expected) << text;
    }
}

TEST(Attributes, ADoubleMustFillTheWholeValue) {
    EXPECT_EQ(Read<double>("2.5", 0), 2.5);
    EXPECT_EQ(Read<double>("", 9), 0.0);

    double value = 9;
    for (const char* text : {"2.5x", "x", "  ", "1,5"}) {
        EXPECT_FALSE(With(text).GetValue("a", value)) << text;
    }
    EXPECT_EQ(value, 9);
}

TEST(Attributes, ABoolIsTrueUnlessItSaysFalseOrZero) {
    for (const char* text : {"false", "FALSE", "False", "0"}) {
        EXPECT_FALSE(Read<bool>(text, true)) << text;
    }
    for (const char* text : {"true", "1", "", "00", "no", "falsehood"}) {
        EXPECT_TRUE(Read<bool>(text, false)) << text;
    }
}

TEST(Attributes, ValuesAreComparedIgnoringCaseButNotLength) {
    const TCAttributes attributes = With("On");

    EXPECT_TRUE(attributes.HasAttrOfValue("a", "on"));
    EXPECT_TRUE(attributes.HasAttrOfValue("a", "ON"));
    EXPECT_FALSE(attributes.HasAttrOfValue("a", "o"));
    EXPECT_FALSE(attributes.HasAttrOfValue("a", "onn"));
    EXPECT_FALSE(attributes.HasAttrOfValue("a", ""));
    EXPECT_FALSE(attributes.HasAttrOfValue("missing", ""));
}

TEST(Elements, TextIsKeptPerElementAndReplacedByALaterOne) {
    TCElements elements;
    std::string text = "untouched";
    EXPECT_FALSE(elements.GetElementData("zols", text));
    EXPECT_EQ(text, "untouched");

    elements.InsertElementData("zols", "one");
    elements.InsertElementData("monitor", "other");
    elements.InsertElementData("zols", "two");
    EXPECT_TRUE(elements.GetElementData("zols", text));
    EXPECT_EQ(text, "two");
}

TEST(Elements, TheCurrentElementIsEmptyUntilItIsSet) {
    TCElements elements;
    std::string name = "untouched";
    elements.GetCurrentElement(name);
    EXPECT_EQ(name, "");

    elements.SetCurrentElement("zols");
    elements.GetCurrentElement(name);
    EXPECT_EQ(name, "zols");
}

}  // namespace
