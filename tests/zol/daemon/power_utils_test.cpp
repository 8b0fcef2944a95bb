#include "ZOLPowerUtils.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

#include "ZOLPolicyManager.h"
#include "ZOLShiftedClock.h"
#include "device_power.h"
#include "device_test.h"
#include "fake_clock.h"
#include "fake_device_power.h"
#include "fake_vconf.h"
#include "mock_dbus_server.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::InvokeWithoutArgs;
using testing::Return;
using zol::ZOLPowerUtils;

constexpr const char* kPreparedKey = "db/private/tvs-cv/power_on_prepared";
constexpr int kPowerOffCode = 5;
constexpr int kNoLimit = -1;

/// Makes this thread the owner of the default main context, as the daemon's main loop does.
class MainLoop {
public:
    MainLoop() { EXPECT_TRUE(g_main_context_acquire(nullptr)); }
    ~MainLoop() { g_main_context_release(nullptr); }
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    static void ServeAllThatWaits() {
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
    }
};

class BreakableClock : public zol::TCShiftedClock {
public:
    std::int64_t GetCurrentTime() const override {
        return isBroken ? throw std::out_of_range("no such year") : TCShiftedClock::GetCurrentTime();
    }
    std::atomic<bool> isBroken{false};
};

class PowerHooks : public DeviceTest {
protected:
    PowerHooks() {
        fakes::clock::SetWall(1000);
        m_manager = std::make_unique<zol::TCPolicyManager>(m_clock, &m_server, nullptr);
        fakes::dlog::Clear();
    }

    void Start() {
        m_power = std::make_unique<ZOLPowerUtils>(m_manager.get());
        ASSERT_TRUE(fakes::device_power::AwaitSubscribed());
    }
    void Stop() { m_power.reset(); }

    static bool IsPrepared() { return fakes::vconf::GetInt(kPreparedKey) == 1; }

    /// Ends a pass of the scheduler, which has begun before.
    static void FinishSchedulerPass() {
        ASSERT_TRUE(fakes::clock::PassSleeps(5s, 6));
        ASSERT_TRUE(fakes::clock::AwaitSleeper(5s));
    }

    MainLoop m_mainLoop;
    testing::StrictMock<MockDbusServer> m_server;
    BreakableClock m_clock;
    std::unique_ptr<zol::TCPolicyManager> m_manager;
    std::unique_ptr<ZOLPowerUtils> m_power;
};

using PowerOff = PowerHooks;
using WakeUp = PowerHooks;
using PowerThread = PowerHooks;

TEST_F(PowerHooks, EveryCallbackReportsNullDataAndReturnsZero) {
    EXPECT_EQ(ZOLPowerUtils::PowerOffCallback(DEVICE_POWER_STANDBY, nullptr), 0);
    EXPECT_EQ(ZOLPowerUtils::m_PreWakeUpCallback(DEVICE_POWER_STANDBY, nullptr), 0);
    EXPECT_EQ(ZOLPowerUtils::m_MainContextPowerOff(nullptr), 0);
    EXPECT_EQ(ZOLPowerUtils::m_MainContextPreWakeUp(nullptr), 0);
    EXPECT_EQ(ZOLPowerUtils::m_StopMainLoop(nullptr), 0);

    EXPECT_EQ(fakes::dlog::Count("ASSERT: [zol/src/ZOLPowerUtils:"), 5);
}

TEST_F(PowerOff, TellsTheClientsOnTheMainContextAndHoldsTheDeviceUntilTheyHaveAnswered) {
    Start();
    std::thread::id teller;
    EXPECT_CALL(m_server, SendNotification(kPowerOffCode, kNoLimit)).WillOnce(InvokeWithoutArgs([&teller] {
        teller = std::this_thread::get_id();
        EXPECT_EQ(fakes::device_power::Holds(), 1);
        return 1;
    }));

    ASSERT_TRUE(fakes::device_power::PowerOff(DEVICE_POWER_STANDBY));
    EXPECT_EQ(teller, std::thread::id()) << "the power thread only queues";
    EXPECT_EQ(fakes::device_power::Holds(), 1);

    ASSERT_TRUE(ServeUntil([] { return fakes::device_power::Holds() == 0; }));
    EXPECT_EQ(teller, std::this_thread::get_id());
}

TEST_F(PowerOff, OnTheThreadOfTheMainContextTheTimedSpanHoldsTheWork) {
    Start();
    EXPECT_CALL(m_server, SendNotification).WillOnce(InvokeWithoutArgs([] {
        fakes::clock::Advance(2500ms);
        return 1;
    }));

    m_power->m_PowerOffCallback();

    ExpectErrors({"Starting power off callback!",
                  "Power off callback successfuly executed! Time taken: 2.500000 seconds"});
}

TEST_F(PowerOff, FromAnotherThreadTheTimedSpanHoldsTheQueuingOnly) {
    Start();
    bool isTold = false;
    EXPECT_CALL(m_server, SendNotification).WillOnce(InvokeWithoutArgs([&isTold] {
        fakes::clock::Advance(2500ms);
        isTold = true;
        return 1;
    }));

    std::thread([this] { m_power->m_PowerOffCallback(); }).join();
    EXPECT_TRUE(fakes::dlog::Has("successfuly executed! Time taken: 0.000000 seconds"));
    EXPECT_FALSE(isTold);

    EXPECT_TRUE(ServeUntil([&isTold] { return isTold; }));
}

TEST_F(PowerOff, TwoHandOversDoNotOverlap) {
    Start();
    std::thread second;
    EXPECT_CALL(m_server, SendNotification)
        .WillOnce(InvokeWithoutArgs([this, &second] {
            second = std::thread([this] { m_power->m_PowerOffCallback(); });
            EXPECT_TRUE(fakes::dlog::WaitFor("Starting power off callback!", 2));
            EXPECT_FALSE(fakes::dlog::Has("successfuly executed!"));
            return 1;
        }))
        .WillOnce(Return(1));

    m_power->m_PowerOffCallback();
    second.join();
    MainLoop::ServeAllThatWaits();

    EXPECT_EQ(fakes::dlog::Count("successfuly executed!"), 2);
}

TEST_F(PowerOff, AClientThatNeverAnswersKeepsNeitherThePowerThreadNorTheMainContextFromWork) {
    Start();
    bool isOver = false;
    EXPECT_CALL(m_server, SendNotification).WillOnce(InvokeWithoutArgs([&isOver] {
        // The server's wait: it serves the main context.
        EXPECT_TRUE(fakes::device_power::WakeUp(DEVICE_POWER_STANDBY));
        EXPECT_TRUE(ServeUntil(IsPrepared));
        isOver = true;
        return 0;
    }));

    ASSERT_TRUE(fakes::device_power::PowerOff(DEVICE_POWER_STANDBY));

    EXPECT_TRUE(ServeUntil([&isOver] { return isOver; }));
    EXPECT_TRUE(IsPrepared());
}

TEST_F(PowerOff, EachHandOverReleasesItsOwnHold) {
    Start();
    EXPECT_CALL(m_server, SendNotification)
        .WillOnce(InvokeWithoutArgs([] {
            // The device went all the same, came back and goes again while a client has not answered.
            EXPECT_TRUE(fakes::device_power::PowerOff(DEVICE_POWER_STANDBY));
            EXPECT_EQ(fakes::device_power::Holds(), 2);
            EXPECT_TRUE(ServeUntil([] { return fakes::device_power::Holds() == 1; }));
            return 1;
        }))
        .WillOnce(Return(1));

    ASSERT_TRUE(fakes::device_power::PowerOff(DEVICE_POWER_STANDBY));

    EXPECT_TRUE(ServeUntil([] { return fakes::device_power::Holds() == 0; }));
}

TEST_F(PowerOff, AnExceptionEndsInTheLog) {
    Start();
    EXPECT_CALL(m_server, SendNotification).WillOnce(testing::Throw(std::runtime_error("bus gone")));

    EXPECT_EQ(ZOLPowerUtils::PowerOffCallback(DEVICE_POWER_SHUTDOWN, m_power.get()), 0);

    EXPECT_TRUE(fakes::dlog::Has("callback failed: bus gone"));
}

TEST_F(WakeUp, MakesTheTimeInStandbyTimeThatPassed) {
    Start();
    ASSERT_TRUE(fakes::clock::AwaitSleeper(5s));
    fakes::clock::SetWall(5000);

    ASSERT_TRUE(fakes::device_power::WakeUp(DEVICE_POWER_STANDBY));
    FinishSchedulerPass();

    EXPECT_EQ(m_clock.GetCurrentTime(), 5030) << "although the main context was not served";
    EXPECT_FALSE(IsPrepared());
}

TEST_F(WakeUp, ReadsTheClockFirstAndPreparesThePowerOnAlsoWhenItCannotBeRead) {
    Start();
    m_clock.isBroken = true;
    EXPECT_EQ(ZOLPowerUtils::m_PreWakeUpCallback(DEVICE_POWER_STANDBY, m_power.get()), 0);
    m_clock.isBroken = false;

    EXPECT_TRUE(ServeUntil(IsPrepared));
    ExpectInOrder({"callback failed: no such year", "Preparing power on"});
}

TEST_F(PowerThread, EndsWheneverItIsStopped) {
    for (int round = 0; round < 100; ++round) {
        const ZOLPowerUtils power(m_manager.get());
        for (int wait = 0; wait < round % 10; ++wait) {
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(fakes::device_power::Calls().size(), 400U);
}

TEST_F(PowerThread, SubscribesAndUnsubscribesInOrderAlsoWhereASourceOfTheMainContextEndsIt) {
    Start();
    EXPECT_EQ(ZOLPowerUtils::m_StopMainLoop(m_power.get()), 0);
    EXPECT_TRUE(ServeUntil([] { return fakes::device_power::Calls().size() == 4; }));
    EXPECT_EQ(ZOLPowerUtils::m_StopMainLoop(m_power.get()), 0);
    Stop();

    EXPECT_FALSE(fakes::dlog::Has("Unable to subscribe"));
    EXPECT_THAT(fakes::device_power::Calls(), ElementsAre("subscribe_poweroff", "subscribe_wakeup",
                                                          "unsubscribe_wakeup", "unsubscribe_poweroff"));
}

TEST_F(PowerThread, NotificationsThatStillWaitAreDroppedWithTheObject) {
    Start();
    ASSERT_TRUE(fakes::device_power::PowerOff(DEVICE_POWER_STANDBY));
    ASSERT_TRUE(fakes::device_power::WakeUp(DEVICE_POWER_STANDBY));

    Stop();
    MainLoop::ServeAllThatWaits();

    EXPECT_FALSE(IsPrepared());
    EXPECT_EQ(fakes::device_power::Holds(), 0);
}

TEST_F(PowerThread, NotificationsThatArriveWhileItStopsDoNoHarm) {
    EXPECT_CALL(m_server, SendNotification).Times(testing::AnyNumber());
    for (int round = 0; round < 20; ++round) {
        Start();
        std::thread device([] { fakes::device_power::PowerOff(DEVICE_POWER_STANDBY); });
        Stop();
        device.join();
        MainLoop::ServeAllThatWaits();
    }
}

TEST_F(PowerThread, APlatformWithoutPowerNotificationsIsLoggedAndTheThreadStillEnds) {
    fakes::device_power::FailSubscriptions(true);
    m_power = std::make_unique<ZOLPowerUtils>(m_manager.get());
    ASSERT_TRUE(fakes::dlog::WaitFor("Unable to subscribe to wake-up notifications: -1"));
    Stop();

    EXPECT_TRUE(fakes::dlog::Has("Unable to subscribe to power-off notifications: -1"));
}

}  // namespace
