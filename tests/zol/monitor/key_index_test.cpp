#include "KeyIndex.h"

#include <gtest/gtest.h>

namespace {

using zol::TCKeyIndex;

int g_comparisons = 0;

struct CountingEqual {
    bool operator()(const std::string& a, const std::string& b) const {
        ++g_comparisons;
        return a == b;
    }
};

using CountingIndex = zol::TCBasicKeyIndex<CountingEqual>;

int ComparisonsToFindTheLastOf(std::size_t keys) {
    CountingIndex index;
    for (std::size_t key = 0; key < keys; ++key) {
        index.Add("db/key/" + std::to_string(key), key);
    }
    g_comparisons = 0;
    EXPECT_EQ(index.Find("db/key/" + std::to_string(keys - 1)), keys - 1);
    return g_comparisons;
}

TEST(KeyIndex, FindsTheFirstPositionOfAKey) {
    TCKeyIndex index;
    index.Add("a", 0);
    index.Add("b", 1);
    index.Add("a", 2);

    EXPECT_EQ(index.Find("a"), 0U);
    EXPECT_EQ(index.Find("b"), 1U);
}

TEST(KeyIndex, ComparesKeysExactly) {
    TCKeyIndex index;
    index.Add("db/a", 0);

    EXPECT_EQ(index.Find("DB/a"), TCKeyIndex::NOT_FOUND);
    EXPECT_EQ(index.Find("db/a "), TCKeyIndex::NOT_FOUND);
    EXPECT_EQ(index.Find(""), TCKeyIndex::NOT_FOUND);
}

TEST(KeyIndex, FindingOneOfTenThousandKeysTakesOneComparisonAsItDoesForOne) {
    EXPECT_EQ(ComparisonsToFindTheLastOf(1), 1);
    EXPECT_EQ(ComparisonsToFindTheLastOf(10000), 1);
}

}  // namespace
