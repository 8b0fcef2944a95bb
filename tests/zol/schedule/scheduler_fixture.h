#pragma once
/// The scheduler on a clock that stands still until a test moves it.
#include <atomic>
#include <chrono>
#include <memory>

#include "ZOLScheduler.h"
#include "ZOLShiftedClock.h"
#include "device_test.h"
#include "fake_clock.h"

constexpr const char* kStartKey = "db/private/zol/policy_time";
constexpr const char* kFirstBootKey = "db/private/zol/policy_first_boot_time";
constexpr const char* kShiftKey = "db/private/zol/clock_diff";
constexpr int kStepsOfAPass = 6;

/// A scheduler whose passes go by when the test lets them.
class Scheduler : public DeviceTest {
protected:
    Scheduler() { fakes::clock::SetWall(1000); }

    /// The first pass has begun when this returns.
    void Start() {
        Start([this] { ++m_disabled; });
    }
    void Start(boost::function<void()> callback) {
        m_scheduler = std::make_unique<zol::TCScheduler>(callback, m_clock);
        AwaitSleep();
    }
    void Stop() { m_scheduler.reset(); }

    void SetEvent(zol::ETimeBase base, std::int64_t offset, bool isNewPolicy = true) {
        m_scheduler->SetSchedule({{zol::SCHEDULE_EVENT_DISABLE, zol::TSEventTime{base, offset}}},
                                 isNewPolicy);
    }

    void AwaitSleep() { ASSERT_TRUE(fakes::clock::AwaitSleeper(std::chrono::seconds(5))); }

    void LetStepsPass(int steps) { ASSERT_TRUE(fakes::clock::PassSleeps(std::chrono::seconds(5), steps)); }
    void LetStepsPassOnAStandingClock(int steps) {
        for (int step = 0; step < steps; ++step) {
            AwaitSleep();
            fakes::clock::AdvanceSteady(std::chrono::seconds(5));
        }
    }
    /// Ends the running pass; the next one has begun, its due events fired, when this returns.
    void FinishPass() {
        LetStepsPass(kStepsOfAPass);
        AwaitSleep();
    }
    void FinishPassOnAStandingClock() {
        LetStepsPassOnAStandingClock(kStepsOfAPass);
        AwaitSleep();
    }
    /// The wall clock is set to each of these seconds, in their order, and a wake-up comes at one of them.
    void SetClockAndWakeUp(std::initializer_list<std::int64_t> seconds, std::int64_t wakeUp) {
        for (const std::int64_t second : seconds) {
            fakes::clock::SetWall(second);
            if (second == wakeUp) {
                m_scheduler->SetLastWakeUpTime();
            }
        }
    }

    std::int64_t PolicyTime() { return m_clock.GetCurrentTime(); }

    zol::TCShiftedClock m_clock;
    std::atomic<int> m_disabled{0};
    std::unique_ptr<zol::TCScheduler> m_scheduler;
};
