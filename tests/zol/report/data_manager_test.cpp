#include "ZOLDataManager.h"

#include <gtest/gtest.h>

#include "dlog.h"
#include "fake_dlog.h"
#include "fake_vconf.h"
#include "fakes.h"

namespace {

using zol::ZOLDataManager;

constexpr const char* kKey = "db/private/corvel/corvel_policy_info";

class DebugData : public testing::Test {
protected:
    DebugData() { fakes::Reset(); }
};

TEST_F(DebugData, ThereIsOneManagerForTheProcess) {
    ASSERT_NE(ZOLDataManager::Instance(), nullptr);
    EXPECT_EQ(ZOLDataManager::Instance(), ZOLDataManager::Instance());
}

TEST_F(DebugData, DlogAndCoredumpSetTheKeyAndLogNothing) {
    ZOLDataManager::Instance()->SetAllDebugData({{"dlog", 1}, {"coredump", 2}});

    EXPECT_EQ(fakes::vconf::GetInt(kKey), 2);
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(DebugData, TheFourReservedNamesAreAcceptedWithoutEffect) {
    ZOLDataManager::Instance()->SetAllDebugData(
        {{"task_info", 1}, {"cv", 1}, {"dlog", 1}, {"streamline", 1}});

    EXPECT_FALSE(fakes::vconf::Exists(kKey));
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(DebugData, ANameWithACapitalLetterIsNotRecognised) {
    ZOLDataManager::Instance()->SetAllDebugData({{"Coredump", 2}, {"", 1}});

    EXPECT_FALSE(fakes::vconf::Exists(kKey));
    EXPECT_EQ(fakes::dlog::Count("No matching debug data!"), 2);
    EXPECT_EQ(fakes::dlog::Find("No matching debug data!").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(DebugData, TheSecondOfTwoCoredumpsStays) {
    ZOLDataManager::Instance()->SetAllDebugData({{"coredump", 2}, {"coredump", -7}});

    EXPECT_EQ(fakes::vconf::GetInt(kKey), -7);
}

TEST_F(DebugData, AnEmptyListDoesNothing) {
    ZOLDataManager::Instance()->SetAllDebugData({});

    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(DebugData, AKeyThatCannotBeWrittenIsLoggedAndTheRestGoesOn) {
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_SET);

    ZOLDataManager::Instance()->SetAllDebugData({{"coredump", 2}, {"nonsense", 1}});

    EXPECT_EQ(fakes::dlog::Find("Unable to save Coredump config!").priority, DLOG_PRIORITY_ERROR);
    EXPECT_TRUE(fakes::dlog::Has("No matching debug data!"));
}

}  // namespace
