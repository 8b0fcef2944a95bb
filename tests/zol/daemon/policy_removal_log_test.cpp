#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "fake_dlog.h"
#include "policy_manager_fixture.h"

namespace {

using testing::StartsWith;

class PolicyRemovalLog : public PolicyManagerTest {
protected:
    void StartWithItem(const std::string& item) {
        StartWith("<zolitem numofzol=\"1\"><zol_expired_time time=\"1000\"/>" + item + ItemFor("db/valid") +
                  "</zolitem>");
    }
    static std::string Removal() { return fakes::dlog::Find("> removed").text; }
};

TEST_F(PolicyRemovalLog, NamesTheCheckOfTheKeysForAKey) {
    StartWithItem("<zols key=\"db/x\" condition=\"SOMEHOW\" type=\"INT\" intvalue=\"1\"/>");

    EXPECT_THAT(Removal(), StartsWith("ZOLPolicyManager: m_RemoveInvalidVconfPolicy("));
}

TEST_F(PolicyRemovalLog, NamesTheCheckOfTheMonitorsForAMonitor) {
    StartWithItem("<monitor kind=\"3\" method=\"33\"/>");

    EXPECT_THAT(Removal(), StartsWith("ZOLPolicyManager: m_RemoveInvalidMonitorPolicy("));
}

}  // namespace
