#include "ZOLDataManager.h"

#include "device_test.h"
#include "fake_vconf.h"

namespace {

using zol::ZOLDataManager;

constexpr const char* kKey = "db/private/corvel/corvel_policy_info";

using DebugData = DeviceTest;

TEST_F(DebugData, TheLastCoredumpSetsTheKeyAndLogsNothing) {
    ZOLDataManager::Instance()->SetAllDebugData({{"dlog", 1}, {"coredump", 2}});
    EXPECT_EQ(fakes::vconf::GetInt(kKey), 2);

    ZOLDataManager::Instance()->SetAllDebugData({{"coredump", 2}, {"coredump", -7}});
    EXPECT_EQ(fakes::vconf::GetInt(kKey), -7);
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(DebugData, TheFourReservedNamesAreAcceptedWithoutEffectAsIsAnEmptyList) {
    ZOLDataManager::Instance()->SetAllDebugData(
        {{"task_info", 1}, {"cv", 1}, {"dlog", 1}, {"streamline", 1}});
    ZOLDataManager::Instance()->SetAllDebugData({});

    EXPECT_FALSE(fakes::vconf::Exists(kKey));
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(DebugData, WhatIsNotRecognisedOrCannotBeWrittenIsLoggedAndTheRestGoesOn) {
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_SET);

    ZOLDataManager::Instance()->SetAllDebugData({{"coredump", 2}, {"Coredump", 2}, {"", 1}});

    EXPECT_FALSE(fakes::vconf::Exists(kKey));
    EXPECT_EQ(Logged("Unable to save Coredump config!"), 1);
    EXPECT_EQ(Logged("No matching debug data!"), 2);
    ExpectErrors({"Unable to save Coredump config!", "No matching debug data!"});
}

}  // namespace
