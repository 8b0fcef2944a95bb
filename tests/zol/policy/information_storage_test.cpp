#include "ZOLInformationStorage.h"

#include <string>
#include <thread>
#include <vector>

#include "device_test.h"
#include "fake_vconf.h"

namespace {

using zol::TCInformationStorage;
using zol::TSCurrentZOLPolicyInformation;
using zol::ZOLPolicyMonitor;
using zol::ZOLVconfMonitor;

constexpr const char* kVersionKey = "db/private/tvs-cv/policy_version";

/// The storage as a process finds it at its start.
class FreshStorage : public TCInformationStorage {};

class InformationStorage : public DeviceTest {
protected:
    TSCurrentZOLPolicyInformation Snapshot() {
        TSCurrentZOLPolicyInformation snapshot;
        m_storage.GetZOLPolicyInformation(snapshot);
        return snapshot;
    }

    FreshStorage m_storage;
};

std::vector<ZOLVconfMonitor> Keys(const std::vector<std::string>& keys) {
    std::vector<ZOLVconfMonitor> items;
    for (const std::string& key : keys) {
        items.emplace_back().key = key;
    }
    return items;
}

std::vector<ZOLPolicyMonitor> Ids(const std::vector<std::string>& ids) {
    std::vector<ZOLPolicyMonitor> items;
    for (const std::string& id : ids) {
        items.emplace_back().id = id;
    }
    return items;
}

TEST_F(InformationStorage, BeforeAnyPolicyItHoldsNothing) {
    const TSCurrentZOLPolicyInformation snapshot = Snapshot();

    EXPECT_EQ(snapshot.policyVersion, -1);
    EXPECT_EQ(snapshot.count, 0U);
    EXPECT_TRUE(snapshot.vconfMonitors.empty());
    EXPECT_TRUE(snapshot.policyMonitors.empty());
}

TEST_F(InformationStorage, TheCountSetLastIsReturnedByBothGetters) {
    m_storage.SetZOLMonitorInformation(3, Keys({"a", "b"}));
    m_storage.SetZOLMonitorInformation(1, Ids({"x"}));

    unsigned count = 0;
    std::vector<ZOLVconfMonitor> keys;
    m_storage.GetZOLMonitorInformation(count, keys);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(keys.size(), 2U);

    count = 0;
    std::vector<ZOLPolicyMonitor> ids;
    m_storage.GetZOLMonitorInformation(count, ids);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(ids.size(), 1U);
}

TEST_F(InformationStorage, SettersAndGettersReplaceWholeListsAndAReaderOwnsWhatItWasGiven) {
    m_storage.SetZOLMonitorInformation(2, Keys({"a", "b"}));
    m_storage.SetZOLMonitorInformation(1, Keys({"c"}));
    unsigned count = 9;
    std::vector<ZOLVconfMonitor> copy = Keys({"old", "older"});
    m_storage.GetZOLMonitorInformation(count, copy);
    EXPECT_EQ(count, 1U);
    ASSERT_EQ(copy.size(), 1U);
    copy.at(0).key = "changed";

    EXPECT_EQ(Snapshot().vconfMonitors.size(), 1U);
    EXPECT_EQ(Snapshot().vconfMonitors.at(0).key, "c");
}

TEST_F(InformationStorage, TheVersionIsWrittenToItsKeyAndKeptWhereThatFails) {
    for (const int version : {-1, 42}) {
        m_storage.SetPolicyVersion(version);
        EXPECT_EQ(fakes::vconf::GetInt(kVersionKey), version);
        EXPECT_EQ(Snapshot().policyVersion, version);
    }
    EXPECT_EQ(Logged("Unable to save policy version!"), 0);

    fakes::vconf::Fail(kVersionKey, fakes::vconf::FAIL_SET);
    m_storage.SetPolicyVersion(7);
    EXPECT_EQ(Snapshot().policyVersion, 7);
    ExpectErrors({"Unable to save policy version!"});
}

TEST_F(InformationStorage, InitializeAndResetLeaveThePolicyAlone) {
    m_storage.SetZOLMonitorInformation(2, Keys({"a", "b"}));
    m_storage.Initialize(nullptr, nullptr);
    m_storage.ResetProcessInformation();

    EXPECT_EQ(Snapshot().count, 2U);
    EXPECT_EQ(Snapshot().vconfMonitors.size(), 2U);
}

TEST_F(InformationStorage, ThereIsOneInstanceHoweverManyThreadsAskFirst) {
    std::vector<TCInformationStorage*> seen(8);
    std::vector<std::thread> threads;
    threads.reserve(seen.size());
    for (TCInformationStorage*& instance : seen) {
        threads.emplace_back([&instance] { instance = TCInformationStorage::Instance(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const TCInformationStorage* instance : seen) {
        EXPECT_EQ(instance, TCInformationStorage::Instance());
    }
    EXPECT_NE(TCInformationStorage::Instance(), nullptr);
}

TEST_F(InformationStorage, AReaderNeverSeesHalfOfAList) {
    std::thread writer([&] {
        for (unsigned round = 0; round < 500; ++round) {
            m_storage.SetZOLMonitorInformation(round % 5, Keys(std::vector<std::string>(round % 5, "key")));
        }
    });
    for (int round = 0; round < 500; ++round) {
        const TSCurrentZOLPolicyInformation snapshot = Snapshot();
        EXPECT_EQ(snapshot.count, snapshot.vconfMonitors.size());
    }
    writer.join();
}

}  // namespace
