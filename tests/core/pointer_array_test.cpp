#include <gtest/gtest.h>

#include <vector>

#include "PointerArray.h"
#include "container_fixture.h"

namespace {

class PointerArray : public ContainerFixture {
protected:
    static void Removed(void* userData, void* element) {
        static_cast<std::vector<void*>*>(userData)->push_back(element);
    }
    void AddAll(int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_TRUE(m_array.Add(&m_values[i]));
        }
    }
    std::vector<int> Content(const CCPointerArray& array) {
        std::vector<int> content;
        void* element = nullptr;
        for (int i = 0; array.GetAt(i, &element); ++i) {
            content.push_back(element == nullptr ? -1
                                                 : static_cast<int>(static_cast<int*>(element) - m_values));
        }
        return content;
    }

    int m_values[16] = {};
    std::vector<void*> m_removed;
    CCPointerArray m_array{Removed, &m_removed};
};

using Content_ = std::vector<int>;

TEST_F(PointerArray, SettingTheTenthSlotOfANewArrayMakesRoomForTwelve) {
    EXPECT_TRUE(m_array.Set(9, &m_values[0]));
    EXPECT_EQ(m_array.Capacity(), 12);
    EXPECT_EQ(m_array.Size(), 10);
    EXPECT_TRUE(m_array.GetAt(9, nullptr));
    EXPECT_FALSE(m_array.GetAt(10, nullptr));
    EXPECT_EQ(m_array.Data(8), nullptr);
    EXPECT_EQ(m_array.Data(9), &m_values[0]);
    EXPECT_EQ(m_array.ValidCount(), 1);
}

TEST_F(PointerArray, GrowsByFourSlots) {
    AddAll(4);
    EXPECT_EQ(m_array.Capacity(), 4);
    EXPECT_TRUE(m_array.Add(&m_values[4]));
    EXPECT_EQ(m_array.Capacity(), 8);
    EXPECT_EQ(Content(m_array), Content_({0, 1, 2, 3, 4}));
    EXPECT_EQ(m_array.ValidCount(), 0) << "only Set counts";
}

TEST_F(PointerArray, InsertShiftsTheTailUpAndRefusesAPlaceOutOfRange) {
    AddAll(4);
    EXPECT_TRUE(m_array.Insert(1, &m_values[9]));
    EXPECT_TRUE(m_array.Insert(5, &m_values[10]));
    EXPECT_TRUE(m_array.Insert(0, &m_values[11]));
    EXPECT_FALSE(m_array.Insert(-1, &m_values[9]));
    EXPECT_FALSE(m_array.Insert(8, &m_values[9]));
    EXPECT_EQ(Content(m_array), Content_({11, 0, 9, 1, 2, 3, 10}));
}

TEST_F(PointerArray, SetLetsTheOldElementLeaveAndCountsOnlyNewOnes) {
    EXPECT_TRUE(m_array.Set(1, &m_values[1]));
    EXPECT_TRUE(m_array.Set(1, &m_values[2]));
    EXPECT_EQ(m_removed, std::vector<void*>({&m_values[1]}));
    EXPECT_EQ(m_array.ValidCount(), 1);
    EXPECT_TRUE(m_array.Set(0, &m_values[0]));
    EXPECT_EQ(m_array.ValidCount(), 2);
    EXPECT_FALSE(m_array.Set(-1, &m_values[0]));
}

TEST_F(PointerArray, RemoveAtTellsAndMovesTheTailDown) {
    AddAll(3);
    EXPECT_TRUE(m_array.RemoveAt(1));
    EXPECT_EQ(m_removed, std::vector<void*>({&m_values[1]}));
    EXPECT_EQ(Content(m_array), Content_({0, 2}));
    EXPECT_TRUE(m_array.Set(2, &m_values[5]));
    EXPECT_EQ(m_removed.size(), 1U) << "the slot behind the end held no element";
}

TEST_F(PointerArray, RemoveAtAndDataOutOfRangeAssert) {
    AddAll(1);
    EXPECT_FALSE(m_array.RemoveAt(1));
    EXPECT_FALSE(m_array.RemoveAt(-1));
    EXPECT_EQ(Assertions("0 <= index && index < m_size [core/src/PointerArray"), 2);
    EXPECT_EQ(m_array.Data(1), nullptr);
    EXPECT_EQ(Assertions("0 <= index && index < m_size [core/src/PointerArray:139]"), 1);
    EXPECT_EQ(Content(m_array), Content_({0}));
}

TEST_F(PointerArray, RemoveAllGoesBackToTheInlineStorage) {
    EXPECT_TRUE(m_array.Set(9, &m_values[3]));
    EXPECT_TRUE(m_array.Add(&m_values[4]));
    EXPECT_TRUE(m_array.RemoveAll());
    EXPECT_EQ(m_removed, std::vector<void*>({&m_values[3], &m_values[4]})) << "null slots do not leave";
    EXPECT_EQ(m_array.Capacity(), 4);
    EXPECT_EQ(m_array.Size(), 0);
    EXPECT_EQ(m_array.ValidCount(), 0);
    EXPECT_TRUE(m_array.Set(3, nullptr));
    EXPECT_EQ(Content(m_array), Content_({-1, -1, -1, -1}));
}

TEST_F(PointerArray, RemoveAllWithoutACallbackAsserts) {
    CCPointerArray array;
    EXPECT_TRUE(array.RemoveAll());
    EXPECT_EQ(Assertions(), 0) << "an empty array needs no callback";
    EXPECT_TRUE(array.Add(&m_values[0]));
    EXPECT_TRUE(array.RemoveAt(0));
    EXPECT_TRUE(array.Add(&m_values[0]));
    array.RemoveAll();
    EXPECT_EQ(Assertions("m_callback.cbRemove [core/src/PointerArray:163]"), 1);
}

TEST_F(PointerArray, TheDestructorLetsEveryElementLeave) {
    std::vector<void*> removed;
    {
        CCPointerArray array(Removed, &removed);
        EXPECT_TRUE(array.Add(&m_values[0]));
        EXPECT_TRUE(array.Add(&m_values[1]));
    }
    EXPECT_EQ(removed.size(), 2U);
}

TEST_F(PointerArray, MergeChangesOwnersWithoutTheCallback) {
    CCPointerArray other(Removed, &m_removed);
    AddAll(3);
    for (int i = 3; i < 9; ++i) {
        EXPECT_TRUE(other.Add(&m_values[i]));
    }
    EXPECT_TRUE(m_array.Merge(&other));
    EXPECT_EQ(Content(m_array), Content_({0, 1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(other.Size(), 0);
    EXPECT_TRUE(other.Set(0, &m_values[10]));
    EXPECT_TRUE(m_removed.empty());
    EXPECT_FALSE(m_array.Merge(nullptr));
    EXPECT_FALSE(m_array.Merge(&m_array));
}

}  // namespace
