#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Int64Hash.h"
#include "IntegerHash.h"
#include "StringHash.h"
#include "container_fixture.h"
#include "death.h"

namespace {

/// Only the highest byte of a key set: its hash is that byte, so the bucket can be told.
constexpr unsigned long Top(unsigned long byte) {
    return byte << 24U;
}

class IntegerHash : public ContainerFixture {
protected:
    ~IntegerHash() override {
        if (m_created) {
            m_hash.Destroy();
        }
    }
    void Create(unsigned long size) {
        m_created = m_hash.Create(size);
        ASSERT_TRUE(m_created);
    }
    std::vector<unsigned long> Walk() {
        std::vector<unsigned long> keys;
        for (bool more = m_hash.SetPosition(IPosition::POS_HEAD, 0); more;
             more = m_hash.SetPosition(IPosition::POS_CURRENT, 1)) {
            keys.push_back(m_hash.Key());
        }
        return keys;
    }
    /// Two keys share a bucket exactly when the later one is put in front of the earlier, and behind or in
    /// front of the key of bucket 1 otherwise.
    bool MakesBuckets(unsigned long request, unsigned long buckets) {
        Create(request);
        EXPECT_TRUE(m_hash.Add(Top(0), nullptr));
        EXPECT_TRUE(m_hash.Add(Top(1), nullptr));
        EXPECT_TRUE(m_hash.Add(Top(buckets), nullptr));
        const std::vector<unsigned long> keys = Walk();
        m_hash.Destroy();
        m_created = false;
        return keys == std::vector<unsigned long>({Top(buckets), Top(0), Top(1)});
    }

    CCIntegerHash m_hash;
    bool m_created = false;
    const int m_first = 1;
    const int m_second = 2;
};

using Keys = std::vector<unsigned long>;

TEST_F(IntegerHash, ARequestForTenMakesElevenBucketsAndAnyOtherTheNextPrimeFromTwo) {
    EXPECT_TRUE(MakesBuckets(10, 11));
    EXPECT_TRUE(MakesBuckets(1, 2));
    EXPECT_TRUE(MakesBuckets(2, 2));
    EXPECT_TRUE(MakesBuckets(3, 3));
    EXPECT_TRUE(MakesBuckets(4, 5));
    EXPECT_TRUE(MakesBuckets(24, 29)) << "25 and 27 are odd, not prime";
}

TEST_F(IntegerHash, OfTwoNodesWithOneKeyTheNewerIsFoundFirstUnlessTheCursorStandsOnTheOlder) {
    Create(10);
    EXPECT_TRUE(m_hash.Add(7, &m_first));
    EXPECT_TRUE(m_hash.Add(7, &m_second));
    EXPECT_TRUE(m_hash.Add(8, nullptr));
    EXPECT_EQ(m_hash.Count(), 3U);
    ASSERT_TRUE(m_hash.Find(7));
    EXPECT_EQ(m_hash.Data(), &m_second);
    ASSERT_TRUE(m_hash.SetPosition(IPosition::POS_CURRENT, 1));
    ASSERT_EQ(m_hash.Data(), &m_first);
    EXPECT_TRUE(m_hash.Find(7));
    EXPECT_EQ(m_hash.Data(), &m_first);
    EXPECT_TRUE(m_hash.Find(8));
    EXPECT_TRUE(m_hash.Find(7));
    EXPECT_EQ(m_hash.Data(), &m_second) << "from elsewhere the newer one comes first";
    EXPECT_TRUE(m_hash.Remove());
    EXPECT_TRUE(m_hash.Find(7));
    EXPECT_EQ(m_hash.Data(), &m_first);
    EXPECT_EQ(m_hash.Count(), 2U);
}

TEST_F(IntegerHash, AWalkContinuesWithTheSuccessorOfARemovedNode) {
    Create(10);
    for (unsigned long i = 0; i < 5; ++i) {
        EXPECT_TRUE(m_hash.Add(Top(i), nullptr));
    }
    ASSERT_TRUE(m_hash.Find(Top(2)));
    EXPECT_TRUE(m_hash.Remove());
    EXPECT_TRUE(m_hash.SetPosition(IPosition::POS_CURRENT, 1));
    EXPECT_EQ(m_hash.Key(), Top(3));
    EXPECT_EQ(Walk(), Keys({Top(0), Top(1), Top(3), Top(4)}));
}

TEST_F(IntegerHash, StepsOfTheWrongSignAssertAndAnUnknownPositionStateChangesNothing) {
    Create(10);
    EXPECT_TRUE(m_hash.Add(Top(1), nullptr));
    EXPECT_TRUE(m_hash.Add(Top(2), nullptr));
    EXPECT_FALSE(m_hash.SetPosition(IPosition::POS_HEAD, -1));
    EXPECT_FALSE(m_hash.SetPosition(IPosition::POS_TAIL, 1));
    EXPECT_TRUE(m_hash.SetPosition(static_cast<IPosition::EPosState>(3), 1));
    EXPECT_EQ(m_hash.Key(), Top(2));
    ExpectAssertedOnceEach(
        {"index >= 0 [core/src/IntegerHash:196]", "index <= 0 [core/src/IntegerHash:243]"});
}

TEST_F(IntegerHash, NodesAreVisitedBucketByBucketNewestFirst) {
    Create(10);
    for (const unsigned long byte : {20UL, 3UL, 9UL, 14UL, 25UL}) {
        EXPECT_TRUE(m_hash.Add(Top(byte), nullptr));
    }
    EXPECT_EQ(Walk(), Keys({Top(25), Top(14), Top(3), Top(9), Top(20)}));
    EXPECT_TRUE(m_hash.SetPosition(IPosition::POS_TAIL, -1));
    EXPECT_EQ(m_hash.Key(), Top(9));
}

TEST_F(IntegerHash, AMissInAFilledBucketKeepsTheCursorAndInAnEmptyOneClearsIt) {
    Create(10);
    EXPECT_TRUE(m_hash.Add(Top(1), &m_first));
    EXPECT_TRUE(m_hash.Add(Top(2), &m_second));
    EXPECT_FALSE(m_hash.Find(Top(12)));
    EXPECT_EQ(m_hash.Data(), &m_second);
    EXPECT_FALSE(m_hash.Find(Top(5)));
    EXPECT_EQ(m_hash.Data(), nullptr);
    EXPECT_EQ(m_hash.Key(), 0U);
    EXPECT_FALSE(m_hash.SetPosition(IPosition::POS_CURRENT, 0));
    ExpectAssertedOnceEach({"m->cur [core/src/IntegerHash:359]", "m->cur [core/src/IntegerHash:368]"});
}

TEST_F(IntegerHash, RemoveNeedsACurrentNode) {
    Create(10);
    EXPECT_FALSE(m_hash.Remove());
    EXPECT_TRUE(m_hash.Add(1, &m_first));
    EXPECT_TRUE(m_hash.Remove());
    EXPECT_FALSE(m_hash.Remove()) << "the cursor stands in the gap";
    EXPECT_EQ(m_hash.Data(), nullptr);
    EXPECT_FALSE(m_hash.Find(1));
    EXPECT_EQ(m_hash.Count(), 0U);
}

TEST_F(IntegerHash, RemovingTheFirstOfARunLeavesTheRestFindable) {
    Create(10);
    for (const unsigned long byte : {1UL, 12UL, 23UL}) {
        EXPECT_TRUE(m_hash.Add(Top(byte), nullptr));
    }
    ASSERT_TRUE(m_hash.Find(Top(23)));
    EXPECT_TRUE(m_hash.Remove());
    ASSERT_TRUE(m_hash.Find(Top(1)));
    EXPECT_TRUE(m_hash.Remove());
    EXPECT_TRUE(m_hash.Find(Top(12)));
    EXPECT_FALSE(m_hash.Find(Top(1)));
    EXPECT_EQ(Walk(), Keys({Top(12)}));
}

TEST_F(IntegerHash, HoldsManyKeysAgainstAnOrdinaryMap) {
    Create(50);
    std::map<unsigned long, const void*> model;
    std::vector<int> values(500);
    std::uint32_t key = 12345;
    for (const int& value : values) {
        key = key * 1664525U + 1013904223U;
        EXPECT_TRUE(m_hash.Add(key, &value));
        model[key] = &value;
        if (key % 3 == 0) {
            ASSERT_TRUE(m_hash.Find(key));
            ASSERT_TRUE(m_hash.Remove());
            model.erase(key);
        }
    }
    EXPECT_EQ(m_hash.Count(), model.size());
    EXPECT_EQ(Walk().size(), model.size());
    for (const auto& [wanted, data] : model) {
        ASSERT_TRUE(m_hash.Find(wanted));
        EXPECT_EQ(m_hash.Data(), data);
    }
}

TEST_F(IntegerHash, CreateAssertsOnSizesOutOfRangeAndASecondTime) {
    EXPECT_FALSE(m_hash.Create(0));
    EXPECT_FALSE(m_hash.Create(0x80000000UL));
    Create(5);
    EXPECT_FALSE(m_hash.Create(5));
    ExpectAssertedOnceEach({"sizeOfTable > 0 [core/src/IntegerHash:31]",
                            "sizeOfTable <= 0x7fffffff [core/src/IntegerHash:32]",
                            "!m [core/src/IntegerHash:33]"});
}

TEST_F(IntegerHash, UsedBeforeCreateItAsserts) {
    EXPECT_EQ(m_hash.Count(), 0U);
    EXPECT_FALSE(m_hash.Add(1, nullptr));
    EXPECT_FALSE(m_hash.SetPosition(IPosition::POS_HEAD, 0));
    EXPECT_FALSE(m_hash.Remove());
    EXPECT_FALSE(m_hash.Find(1));
    EXPECT_EQ(m_hash.Key(), 0U);
    EXPECT_EQ(m_hash.Data(), nullptr);
    for (const char* const line : {"80", "88", "184", "267", "358", "367"}) {
        ExpectAssertedOnceEach({std::string("m [core/src/IntegerHash:") + line + "]"});
    }
}

TEST_F(IntegerHash, DestroyReleasesNodesThatAreLeft) {
    {
        CCIntegerHash hash;
        ASSERT_TRUE(hash.Create(5));
        EXPECT_TRUE(hash.Add(1, nullptr));
        hash.Destroy();
        ASSERT_TRUE(hash.Create(5));
        EXPECT_EQ(hash.Count(), 0U);
        hash.Destroy();
    }
    EXPECT_EQ(Assertions(), 0);
}

TEST_F(IntegerHash, KeysAre32BitsWide) {
    Create(5);
    EXPECT_TRUE(m_hash.Add(0xFFFFFFFFUL, &m_first));
    EXPECT_TRUE(m_hash.Find(static_cast<unsigned long>(-1)));
    EXPECT_EQ(m_hash.Key(), 0xFFFFFFFFUL);
}

class Int64Hash : public ContainerFixture {};

TEST_F(Int64Hash, TellsKeysApartByTheirHighWord) {
    constexpr std::uint64_t kHigh = 0x100000007ULL;
    const int low = 0;
    const int high = 0;
    CCInt64Hash hash;
    ASSERT_TRUE(hash.Create(10));
    EXPECT_TRUE(hash.Add(7, &low));
    EXPECT_TRUE(hash.Add(kHigh, &high));
    ASSERT_TRUE(hash.Find(7));
    EXPECT_EQ(hash.Data(), &low);
    ASSERT_TRUE(hash.Find(kHigh));
    EXPECT_EQ(hash.Data(), &high);
    EXPECT_EQ(hash.Key(), kHigh);
    EXPECT_FALSE(hash.SetPosition(IPosition::POS_HEAD, -1));
    EXPECT_EQ(Assertions("index >= 0 [core/src/Int64Hash:196]"), 1);
    hash.Destroy();
}

TEST_F(Int64Hash, HashesAllEightBytes) {
    CCInt64Hash hash;
    ASSERT_TRUE(hash.Create(10));
    for (const std::uint64_t byte : {0ULL, 1ULL, 11ULL}) {
        EXPECT_TRUE(hash.Add(byte << 56U, nullptr));
    }
    EXPECT_TRUE(hash.SetPosition(IPosition::POS_HEAD, 0));
    EXPECT_EQ(hash.Key(), 11ULL << 56U) << "in front of key 0, in bucket 0 of 11";
    hash.Destroy();
}

class StringHash : public ContainerFixture {};

TEST_F(StringHash, KeepsACopyOfEachKey) {
    CCStringHash hash;
    ASSERT_TRUE(hash.Create(10, static_cast<unsigned long>(-1)));
    std::string key = "volume";
    const int data = 0;
    EXPECT_TRUE(hash.Add(key.c_str(), &data));
    key = "changed";
    EXPECT_FALSE(hash.Find("changed"));
    ASSERT_TRUE(hash.Find("volume"));
    EXPECT_EQ(hash.Data(), &data);
    EXPECT_STREQ(static_cast<const char*>(hash.Key()), "volume");
    EXPECT_FALSE(hash.Find("volumes"));
    ASSERT_TRUE(hash.Find("volume"));
    EXPECT_TRUE(hash.Remove());
    EXPECT_EQ(hash.Key(), nullptr);
    hash.Destroy();
}

TEST_F(StringHash, ComparesExactlyTheKeyLengthWhenThereIsOne) {
    CCStringHash hash;
    ASSERT_TRUE(hash.Create(10, 3));
    EXPECT_TRUE(hash.Add("ab\0tail", nullptr));
    EXPECT_TRUE(hash.Find("ab\0other"));
    EXPECT_TRUE(hash.Add("abc", nullptr));
    EXPECT_TRUE(hash.Find("abcd"));
    EXPECT_FALSE(hash.Find("abd"));
    while (hash.SetPosition(IPosition::POS_HEAD, 0)) {
        EXPECT_TRUE(hash.Remove());
    }
    hash.Destroy();
}

TEST_F(StringHash, HashesTheBytesInOrder) {
    CCStringHash hash;
    ASSERT_TRUE(hash.Create(10, CCStringHash::kNulTerminated));
    // 'B' is 66, a multiple of 11; "!" is 33, another; "B" and "!" share a bucket and 'C' has the next one.
    for (const char* const key : {"C", "B", "!"}) {
        EXPECT_TRUE(hash.Add(key, nullptr));
    }
    std::vector<std::string> keys;
    while (hash.SetPosition(IPosition::POS_HEAD, 0)) {
        keys.emplace_back(static_cast<const char*>(hash.Key()));
        EXPECT_TRUE(hash.Remove());
    }
    EXPECT_EQ(keys, std::vector<std::string>({"!", "B", "C"}));
    hash.Destroy();
}

using StringHashDeathTest = StringHash;

TEST_F(StringHashDeathTest, DestroyedWithNodesLeftOrBeforeCreateItEndsTheProcess) {
    const auto destroyFull = [] {
        CCStringHash hash;
        EXPECT_TRUE(hash.Create(10, CCStringHash::kNulTerminated));
        EXPECT_TRUE(hash.Add("left", nullptr));
        hash.Destroy();
    };
    EXPECT_EXIT(Reporting(destroyFull), testing::ExitedWithCode(0),
                "\\[core/src/StringHash:72\\] ASSERT: m->size == 0");
    SurviveAssertions();  // an ended process takes the test's machine with it
    EXPECT_EXIT(Reporting([] { CCStringHash().Destroy(); }), testing::ExitedWithCode(0),
                "\\[core/src/StringHash:71\\] ASSERT: m");
}

}  // namespace
