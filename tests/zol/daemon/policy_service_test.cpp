#include "PolicyService.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "HandOverQueue.h"
#include "HitNews.h"
#include "ZOLNotifyManager.h"
#include "fake_bt_hid.h"
#include "fake_clock.h"
#include "fake_platform_services.h"
#include "fake_service_watchdog.h"
#include "policy_manager_fixture.h"

namespace {

using testing::ElementsAre;
using zol::HitNews;
using zol::PolicyService;
using zol::TSPolicyHit;

constexpr const char* kPairing =
    "<monitor kind='3' name='r' method='31' duration='2' repetition='3' reserve1='1'/>";

/// Counts what it is told.
class FakePolicyServer : public zol::IPolicyServer {
public:
    void ServePolicy(zol::IPolicyService* served) override { service = served; }
    void TellPolicyChange() override { ++changes; }
    void TellPolicyHit(const TSPolicyHit& hit) override { rules.push_back(hit.rule); }

    zol::IPolicyService* service = nullptr;
    int changes = 0;
    std::vector<std::string> rules;  ///< of hits
};

class PolicyServiceTest : public PolicyManagerTest {
protected:
    PolicyServiceTest() {
        HitNews::Tell({});
        Serve();
    }
    void Serve() {
        m_service.reset();
        m_service = std::make_unique<PolicyService>(m_policyServer, Start());
    }
    ~PolicyServiceTest() override { m_service.reset(); }

    FakePolicyServer m_policyServer;
    std::unique_ptr<PolicyService> m_service;
};

/// The value of a name in a rule; a text that no rule has without it.
std::string TextOf(const zol::TSPolicyRule& rule, const std::string& name) {
    for (const auto& [known, value] : rule) {
        if (known == name) {
            return std::holds_alternative<std::string>(value)
                       ? std::get<std::string>(value)
                       : std::to_string(std::visit(
                             [](const auto& number) -> long {
                                 if constexpr (std::is_integral_v<std::decay_t<decltype(number)>>) {
                                     return static_cast<long>(number);
                                 } else {
                                     return 0;
                                 }
                             },
                             value));
        }
    }
    return "(none)";
}

TEST_F(PolicyServiceTest, ServesForAsLongAsItLives) {
    EXPECT_EQ(m_policyServer.service, m_service.get());
    m_service.reset();
    EXPECT_EQ(m_policyServer.service, nullptr);
    HitNews::Tell({1, "db/late", "", ""});
    EXPECT_TRUE(m_policyServer.rules.empty());
}

TEST_F(PolicyServiceTest, EveryFateOfAPolicyHasItsWordAndIsTold) {
    EXPECT_EQ(m_service->SetPolicy("no policy").outcome, "refused");
    EXPECT_EQ(m_service->SetPolicy("<zolitem/>").outcome, "nothing to watch");
    EXPECT_EQ(m_service->SetPolicy(Document("<zols key='db/x' condition='IS'/>")).outcome,
              "nothing to watch");
    EXPECT_EQ(m_service->State().rulesDropped, 1U);
    EXPECT_EQ(m_service->SetPolicy(PolicyFor("db/a")).outcome, "running");
    EXPECT_EQ(m_service->SetPolicy(PolicyFor("db/b")).outcome, "stored");
    EXPECT_EQ(m_policyServer.changes, 5);
    EXPECT_NE(m_service->Digests().stored, m_service->Digests().running);
    EXPECT_EQ(m_service->Digests().running.size(), 64U);

    Serve();

    EXPECT_EQ(m_service->Digests().stored, m_service->Digests().running);
    EXPECT_TRUE(m_service->State().isMonitoring);
    EXPECT_EQ(m_service->State().rulesWatched, 1U);
    EXPECT_EQ(m_service->State().rulesDropped, 0U);
}

TEST_F(PolicyServiceTest, WhatIsWatchedLaterIsToldAndCountedThen) {
    fakes::vconf::Fail("db/a", fakes::vconf::FAIL_NOTIFY);
    m_service->SetPolicy(Document(ItemFor("db/a") + ItemFor("db/b") + kPairing, 3));
    EXPECT_EQ(m_service->State().rulesWatched, 2U);
    EXPECT_EQ(TextOf(m_service->Explain("db/a").at(0), "state"), "waiting to be watched");

    fakes::vconf::Fail("db/a", fakes::vconf::FAIL_NONE);
    const int changes = m_policyServer.changes;
    EXPECT_TRUE(LetRetryCome());

    EXPECT_EQ(m_policyServer.changes, changes + 1);
    EXPECT_EQ(m_service->State().rulesWatched, 3U);
}

TEST_F(PolicyServiceTest, TheExpiryIsAMomentOfTheWallClockWhereverPolicyTimeStands) {
    EXPECT_EQ(m_service->State().expires, 0) << "there is no policy";
    m_service->SetPolicy(Document("<zol_expired_time time=\"1000\"/>" + ItemFor("db/a")));
    const std::int64_t begin = fakes::clock::kEpoch;
    fakes::clock::SetWall(begin + 100);
    m_clock.AccumulateTimeShift(50);

    EXPECT_EQ(m_service->State().expires, begin + 1000 - 50);
    m_clock.AccumulateTimeShift(10000);
    EXPECT_EQ(m_service->State().expires, begin + 100) << "late";
}

TEST_F(PolicyServiceTest, TheSupervisorIsToldWhatRuns) {
    EXPECT_EQ(fakes::service_watchdog::Status(), "No policy runs");
    m_service->SetPolicy(Document(ItemFor("db/a") + "<zols key='db/x' condition='IS'/>", 2));
    EXPECT_EQ(fakes::service_watchdog::Status(), "1 rules watched, 1 dropped");
    Serve();
    EXPECT_EQ(fakes::service_watchdog::Status(), "1 rules watched, 1 dropped")
        << "what it finds at the start";
}

TEST_F(PolicyServiceTest, WhatRunsHasRunAsLongAlsoWhenTheWallClockWasSetAndThroughStandby) {
    EXPECT_EQ(m_service->State().since, 0) << "nothing runs";
    m_service->SetPolicy(PolicyFor("db/a"));
    const std::int64_t begin = fakes::clock::kEpoch;

    EXPECT_EQ(m_service->State().since, begin);
    fakes::clock::SetWall(begin + 36000);  // after a standby
    EXPECT_EQ(m_service->State().since, begin);
    fakes::clock::SetWall(begin + 36000 + 1000000);
    m_clock.AccumulateTimeShift(-1000000);  // as the scheduler takes out what the clock was set by
    EXPECT_EQ(m_service->State().since, begin + 1000000);
    m_service->SetPolicy(PolicyFor("db/b"));
    EXPECT_EQ(m_service->State().since, begin + 1000000) << "that one is stored";
}

TEST_F(PolicyServiceTest, HitsAreToldAndTheLastOneIsKept) {
    m_service->SetPolicy(PolicyFor("db/a"));

    fakes::vconf::SetInt("db/a", 1);

    ASSERT_TRUE(Eventually([] { return HitNews::Last().rule == "db/a"; }));
    const TSPolicyHit last = m_service->State().lastHit;
    EXPECT_EQ(last.value, "1");
    EXPECT_EQ(last.report, fakes::vconf::GetString(zol::HandOverQueue::KEY));
    EXPECT_EQ(last.time, fakes::clock::kEpoch);
    EXPECT_THAT(m_policyServer.rules, ElementsAre("db/a"));
    fakes::vconf::SetInt("db/a", 1);
    EXPECT_TRUE(Eventually([this] { return m_service->State().pathsWaiting == 1; }));
    fakes::vconf::SetString(zol::HandOverQueue::KEY, "");
    EXPECT_TRUE(Eventually([this] { return m_service->State().pathsWaiting == 0; })) << "published";
    fakes::vconf::SetInt("db/a", 1);
    EXPECT_TRUE(Eventually([this] { return m_service->State().pathsWaiting == 1; }));
    m_service.reset();
    Stop();
    EXPECT_EQ(zol::HandOverQueue::WaitingInAll(), 0U) << "lost with its queue";
}

TEST_F(PolicyServiceTest, AMonitorIsExplainedWithWhatItHasCounted) {
    m_service->SetPolicy(Document(ItemFor("db/a") + kPairing, 2));
    EXPECT_EQ(TextOf(m_service->Explain("").at(1), "count"), "0");
    EXPECT_EQ(TextOf(m_service->Explain("").at(1), "period-ends"), "(none)");

    EXPECT_TRUE(fakes::bt_hid::Connect());

    const zol::TSPolicyRule rule = m_service->Explain("").at(1);
    EXPECT_EQ(TextOf(rule, "kind"), "pairing");
    EXPECT_EQ(TextOf(rule, "count"), "1");
    EXPECT_EQ(TextOf(rule, "period"), "120");
    EXPECT_EQ(TextOf(rule, "ignore"), "1");
    EXPECT_EQ(TextOf(rule, "period-ends"), std::to_string(fakes::clock::kEpoch + 120));
    EXPECT_TRUE(m_service->Explain("pairing").empty()) << "that is no key";
}

TEST_F(PolicyServiceTest, ARuleThatHeldIsExplainedAsReported) {
    fakes::vconf::SetInt("db/a", 1);
    m_service->SetPolicy(PolicyFor("db/a"));

    EXPECT_EQ(TextOf(m_service->Explain("db/a").at(0), "state"), "reported at the start");
    EXPECT_EQ(m_service->State().rulesWatched, 1U);
}

TEST_F(PolicyServiceTest, ARuleWhoseKeyCannotBeReadIsExplainedAsNotReadYet) {
    fakes::vconf::SetInt("db/a", 0);
    fakes::vconf::Fail("db/a", fakes::vconf::FAIL_GET);
    m_service->SetPolicy(PolicyFor("db/a"));

    EXPECT_EQ(TextOf(m_service->Explain("db/a").at(0), "state"), "not read yet");
}

TEST_F(PolicyServiceTest, EachInstallMonitorIsExplained) {
    m_service->SetPolicy(Document(
        ItemFor("db/a") + "<monitor kind='1' id='b' name='B' method='11' duration='1' repetition='9'/>"
                          "<monitor kind='1' id='a' name='A' method='11' duration='1' repetition='9'/>",
        3));

    const std::vector<zol::TSPolicyRule> rules = m_service->Explain("");
    ASSERT_EQ(rules.size(), 3U);
    EXPECT_EQ(TextOf(rules[1], "id") + TextOf(rules[2], "id"), "ba") << "in the order of the policy";
    EXPECT_EQ(TextOf(rules[1], "kind"), "install");
}

TEST_F(PolicyServiceTest, AKeyIsExplainedWithWhatItHoldsNow) {
    m_service->SetPolicy(Document(ItemFor("db/a") + ItemFor("db/a"), 2));
    const auto explain = [this](const char* name) { return TextOf(m_service->Explain("db/a").at(0), name); };
    EXPECT_EQ(explain("value-type"), "none");
    EXPECT_EQ(explain("holds"), "(none)");
    fakes::vconf::SetString("db/a", "one");
    EXPECT_EQ(explain("value-type"), "string");
    EXPECT_EQ(explain("value"), "one");
    EXPECT_EQ(explain("holds"), "0") << "the type of the key decides: it is compared with no text";
    fakes::vconf::SetBool("db/a", true);
    EXPECT_EQ(explain("value-type"), "bool");
    fakes::vconf::SetInt("db/a", 1);
    EXPECT_EQ(explain("holds"), "1");
    fakes::vconf::Fail("db/a", fakes::vconf::FAIL_GET);
    EXPECT_EQ(explain("value-type"), "unreadable");
    EXPECT_EQ(explain("judged-by"), "(none)");
    EXPECT_EQ(TextOf(m_service->Explain("db/a").at(1), "judged-by"), "1");
}

TEST_F(PolicyServiceTest, MissingServicesAreThoseOfThePlatform) {
    fakes::platform_services::SetMissing({"BlueZ", "logind"});

    EXPECT_THAT(m_service->State().missingServices, ElementsAre("BlueZ", "logind"));
    EXPECT_EQ(m_service->State().version, "1.0.0");
    EXPECT_EQ(m_service->State().policyVersion, -1);
}

}  // namespace
