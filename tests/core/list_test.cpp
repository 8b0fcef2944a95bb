#include <gtest/gtest.h>

#include <vector>

#include "List.h"
#include "container_fixture.h"

namespace {

class List : public ContainerFixture {
protected:
    ~List() override {
        while (m_list.SetPosition(IPosition::POS_HEAD, 0)) {
            EXPECT_TRUE(m_list.Remove());
        }
    }

    /// Adds 0, 1, 2... up to `count` at the tail.
    void Fill(int count) {
        for (int i = 0; i < count; ++i) {
            static_cast<void>(m_list.SetPosition(IPosition::POS_TAIL, 0));  // false while it is empty
            ASSERT_TRUE(m_list.Add(&m_values[i], CCList::ADD_AFTER));
        }
    }
    int Current() { return static_cast<int>(static_cast<int*>(m_list.Data()) - m_values); }
    std::vector<int> Walk() {
        std::vector<int> seen;
        for (bool more = m_list.SetPosition(IPosition::POS_HEAD, 0); more;
             more = m_list.SetPosition(IPosition::POS_CURRENT, 1)) {
            seen.push_back(Current());
        }
        return seen;
    }

    int m_values[8] = {};
    CCList m_list;
};

using Seen = std::vector<int>;

TEST_F(List, TheFirstElementIsHeadTailAndCurrent) {
    EXPECT_TRUE(m_list.Add(&m_values[3], CCList::ADD_BEFORE));
    EXPECT_EQ(Current(), 3);
    EXPECT_TRUE(m_list.SetPosition(IPosition::POS_TAIL, 0));
    EXPECT_EQ(Current(), 3);
    EXPECT_EQ(Walk(), Seen({3}));
}

TEST_F(List, AddsBehindAndInFrontOfTheCurrentElement) {
    EXPECT_TRUE(m_list.Add(&m_values[0], CCList::ADD_AFTER));
    EXPECT_TRUE(m_list.Add(&m_values[2], CCList::ADD_AFTER));
    EXPECT_TRUE(m_list.Add(&m_values[1], CCList::ADD_BEFORE));
    EXPECT_EQ(Current(), 1);
    EXPECT_TRUE(m_list.SetPosition(IPosition::POS_HEAD, 0));
    EXPECT_TRUE(m_list.Add(&m_values[4], CCList::ADD_BEFORE));
    EXPECT_TRUE(m_list.SetPosition(IPosition::POS_HEAD, 1));
    EXPECT_TRUE(m_list.Add(&m_values[5], CCList::ADD_AFTER));
    EXPECT_EQ(Walk(), Seen({4, 0, 5, 1, 2}));
}

TEST_F(List, AWalkContinuesWithTheSuccessorOfARemovedElementOrGoesBack) {
    Fill(4);
    EXPECT_TRUE(m_list.SetPosition(IPosition::POS_HEAD, 1));
    EXPECT_TRUE(m_list.Remove());
    EXPECT_TRUE(m_list.SetPosition(IPosition::POS_CURRENT, 1));
    EXPECT_EQ(Current(), 2);
    EXPECT_EQ(Walk(), Seen({0, 2, 3}));
    EXPECT_TRUE(m_list.SetPosition(IPosition::POS_TAIL, -1));
    EXPECT_TRUE(m_list.Remove());
    EXPECT_TRUE(m_list.SetPosition(IPosition::POS_CURRENT, -1));
    EXPECT_EQ(Current(), 0);
}

TEST_F(List, EveryElementMayBeRemovedDuringTheWalk) {
    Fill(4);
    int removed = 0;
    for (bool more = m_list.SetPosition(IPosition::POS_HEAD, 0); more;
         more = m_list.SetPosition(IPosition::POS_CURRENT, 1)) {
        EXPECT_TRUE(m_list.Remove());
        ++removed;
    }
    EXPECT_EQ(removed, 4);
    EXPECT_FALSE(m_list.SetPosition(IPosition::POS_HEAD, 0));
}

TEST_F(List, ANewElementTakesTheRemovedOnesPlaceWhateverTheMode) {
    for (const CCList::EAddMode mode : {CCList::ADD_BEFORE, CCList::ADD_AFTER}) {
        Fill(3);
        EXPECT_TRUE(m_list.SetPosition(IPosition::POS_HEAD, 1));
        EXPECT_TRUE(m_list.Remove());
        EXPECT_TRUE(m_list.Add(&m_values[7], mode));
        EXPECT_EQ(Walk(), Seen({0, 7, 2}));
        while (m_list.SetPosition(IPosition::POS_HEAD, 0)) {
            EXPECT_TRUE(m_list.Remove());
        }
    }
}

TEST_F(List, ARemovedHeadOrTailIsReplacedAtItsEnd) {
    Fill(3);
    EXPECT_TRUE(m_list.SetPosition(IPosition::POS_HEAD, 0));
    EXPECT_TRUE(m_list.Remove());
    EXPECT_TRUE(m_list.Add(&m_values[6], CCList::ADD_AFTER));
    EXPECT_TRUE(m_list.SetPosition(IPosition::POS_TAIL, 0));
    EXPECT_TRUE(m_list.Remove());
    EXPECT_TRUE(m_list.Add(&m_values[7], CCList::ADD_BEFORE));
    EXPECT_EQ(Walk(), Seen({6, 1, 7}));
}

TEST_F(List, ASecondRemoveOfTheSameElementIsRefused) {
    Fill(2);
    EXPECT_TRUE(m_list.SetPosition(IPosition::POS_HEAD, 0));
    EXPECT_TRUE(m_list.Remove());
    EXPECT_FALSE(m_list.Remove());
    EXPECT_EQ(m_list.Data(), nullptr);
    EXPECT_EQ(Walk(), Seen({1}));
}

TEST_F(List, AnEmptyListHasNoPositionAndNoData) {
    EXPECT_FALSE(m_list.SetPosition(IPosition::POS_HEAD, 0));
    EXPECT_FALSE(m_list.SetPosition(IPosition::POS_HEAD, -1)) << "emptiness is tested first";
    EXPECT_EQ(m_list.Data(), nullptr);
    EXPECT_FALSE(m_list.Remove());
    EXPECT_EQ(Assertions(), 0);
}

TEST_F(List, RunningOffTheEndLeavesTheCursor) {
    Fill(3);
    EXPECT_TRUE(m_list.SetPosition(IPosition::POS_HEAD, 1));
    EXPECT_FALSE(m_list.SetPosition(IPosition::POS_CURRENT, 2));
    EXPECT_FALSE(m_list.SetPosition(IPosition::POS_CURRENT, -2));
    EXPECT_FALSE(m_list.SetPosition(IPosition::POS_HEAD, 3));
    EXPECT_FALSE(m_list.SetPosition(IPosition::POS_TAIL, -3));
    EXPECT_EQ(Current(), 1);
}

TEST_F(List, StepsOfTheWrongSignAssert) {
    Fill(2);
    EXPECT_FALSE(m_list.SetPosition(IPosition::POS_HEAD, -1));
    EXPECT_EQ(Assertions("index >= 0 [core/src/List:72]"), 1);
    EXPECT_FALSE(m_list.SetPosition(IPosition::POS_TAIL, 1));
    EXPECT_EQ(Assertions("index <= 0 [core/src/List:104]"), 1);
}

TEST_F(List, DestructedWithElementsItAsserts) {
    {
        CCList list;
        EXPECT_TRUE(list.Add(&m_values[0], CCList::ADD_AFTER));
    }
    EXPECT_EQ(Assertions("m_size == 0 [core/src/List:14]"), 1);
}

}  // namespace
