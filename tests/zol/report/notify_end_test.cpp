/// What becomes of hits that wait when the notify task ends.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "fake_clock.h"
#include "fake_dlog.h"
#include "gate.h"
#include "kpi_events.h"
#include "notify_fixture.h"
#include "platform_clock.h"

namespace {

using namespace std::chrono_literals;

/// Stops in front of each event.
class HeldNotify : public TCNotifyManager {
public:
    HeldNotify() = default;
    ~HeldNotify() override {
        if (CCTask::FlagCreate()) {
            Destroy();
        }
    }
    HeldNotify(const HeldNotify&) = delete;
    HeldNotify& operator=(const HeldNotify&) = delete;

    bool t_OnEvent(const CSEvent* event) override {
        m_gate.Pass();
        return TCNotifyManager::t_OnEvent(event);
    }
    void Post(std::uint32_t type) {
        CSEvent event;
        event.receiver = this;
        event.type = type;
        EXPECT_TRUE(CCTask::Send(&event, false));
    }

    Gate m_gate;
};

class NotifyEnd : public NotifyFixture {
protected:
    NotifyEnd() {
        SetMonitors({zol::ZOLPolicyMonitor()});
        EXPECT_TRUE(m_held.Create());
        for (const char* key : {"db/a", "db/b"}) {
            m_held.AddNotify(Key(key), 5, "null");
        }
        m_held.Post(NOTIFY_ZOL_VCONF);
        m_held.Post(NOTIFY_ZOL_MONITOR);
        EXPECT_TRUE(m_held.m_gate.AwaitArrival());
    }

    /// Ends the task; its two events are let through after this time.
    void EndAfter(std::chrono::seconds time) {
        std::thread releaser([&] {
            EXPECT_TRUE(fakes::dlog::WaitFor("[TCNotifyManager] Destroy"));
            fakes::clock::Advance(time);
            m_held.m_gate.Open();
            m_held.m_gate.Open();
        });
        m_held.Destroy();
        releaser.join();
    }

    HeldNotify m_held;
};

TEST_F(NotifyEnd, ReportsWhatWasPostedBefore) {
    EndAfter(4s);

    EXPECT_EQ(SentKpiDescriptions().size(), 3U);
    EXPECT_FALSE(fakes::dlog::Has("given up"));
}

TEST_F(NotifyEnd, GivesUpAfterFiveSecondsAndCountsWhatIsLost) {
    EndAfter(5s);

    EXPECT_TRUE(SentKpiDescriptions().empty());
    EXPECT_EQ(fakes::dlog::Count("3 hits are given up, the daemon ends"), 1);
    EXPECT_EQ(PublishedPath(), "");
}

TEST_F(NotifyEnd, GivesUpEarlierWhenItIsToldTo) {
    m_held.ReportUntil(platform_clock_steady_ns() + std::chrono::nanoseconds(2s).count());

    EndAfter(2s);

    EXPECT_EQ(fakes::dlog::Count("3 hits are given up"), 1);
}

TEST_F(NotifyEnd, CountsHitsForWhichNoFolderCouldBeMade) {
    fakes::WriteDeviceFile("/tmp/zol", "a file where the folder should be");

    EndAfter(0s);

    EXPECT_EQ(fakes::dlog::Count("2 hits are given up"), 1);
}

}  // namespace
