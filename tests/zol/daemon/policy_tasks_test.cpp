/// The tasks that the policy manager makes for a policy, and what it does when one cannot start.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "HandOverQueue.h"
#include "dlog.h"
#include "failing_new.h"
#include "fake_bt_hid.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "fake_was.h"
#include "policy_manager_fixture.h"

namespace {

/// How many threads may still be made before one fails; negative: all.
std::atomic<int> g_threadsLeft{-1};

}  // namespace

/// Stands before the C library's, for the whole test program.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                              void* argument) noexcept {
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    if (g_threadsLeft >= 0 && g_threadsLeft-- == 0) {
        return EAGAIN;
    }
    return create(thread, attributes, entry, argument);
}

namespace {

using fakes::dlog::Count;
using fakes::dlog::Has;

const char* const kPairing =
    "<monitor kind=\"3\" name=\"remote\" method=\"31\" duration=\"10\" repetition=\"5\"/>";
const char* const kInstall =
    "<monitor kind=\"1\" id=\"org.app\" name=\"App\" method=\"11\" duration=\"60\" repetition=\"3\"/>";

class PolicyTasks : public PolicyManagerTest {
protected:
    ~PolicyTasks() override { g_threadsLeft = -1; }

    /// Pushes a policy of these items to a manager that has none, with room for so many threads.
    void Push(const std::string& items, int threads = -1) {
        Stop();
        std::filesystem::remove(fakes::Root() + ZOL_PATH_POLICY);
        Start();
        g_threadsLeft = threads;
        EXPECT_TRUE(m_manager->UpdatePolicy(Document(items)));
        g_threadsLeft = -1;
    }
    static void ExpectNotRunning(const std::string& reason) {
        EXPECT_EQ(fakes::vconf::GetInt(kRunningKey), 0);
        ExpectErrors({reason});
    }
    static void ExpectFailedCheck(const std::string& source, const std::string& expression) {
        const std::string line = fakes::dlog::Find("_CHECK FAIL: " + source + ":").text;
        EXPECT_NE(line.find(", " + expression), std::string::npos) << line;
    }
};

TEST_F(PolicyTasks, BothKindsOfItemsAreWatchedTheKeysFirst) {
    Push(ItemFor("db/a") + kPairing + kInstall);

    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
    EXPECT_EQ(fakes::bt_hid::Registrations(), 1);
    EXPECT_EQ(fakes::was::RegisteredIds(), std::vector<std::string>{"org.app"});
    ExpectInOrder(
        {"totalCount[3]", "[TCNotifyManager] Created", "[db/a] registered", "[TCMonitorManager] Created"});
}

TEST_F(PolicyTasks, WithoutAValidMonitorThereIsNoMonitorManager) {
    Push(ItemFor("db/a") + "<monitor kind=\"3\" method=\"30\"/>");

    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);
    EXPECT_FALSE(Has("[TCMonitorManager] Create"));
}

TEST_F(PolicyTasks, WithoutAValidKeyThereIsNoChecker) {
    Push(std::string("<zols key=\"db/a\" condition=\"IS\" type=\"INT\"/>") + kPairing);
    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(fakes::bt_hid::Registrations(), 1);

    StartWith(Document(kPairing));
    EXPECT_TRUE(IsRunning()) << "nor where a stored policy has none";
    EXPECT_EQ(fakes::bt_hid::Registrations(), 1);
    EXPECT_FALSE(Has("[TCVconfChecker] Create"));
}

TEST_F(PolicyTasks, ATaskThatCannotStartStopsTheRestAndTheNextUpdateMakesANewSet) {
    Push(ItemFor("db/a") + kPairing, 0);
    ExpectNotRunning("pNotify is NULL or failed to create");
    ExpectFailedCheck("zol/src/ZOLNotifyManager", "CCTask::Create(\"ZolNotifyManager\")");
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 0);

    Push(ItemFor("db/a") + kPairing, 1);
    ExpectNotRunning("pVconfMonitor is NULL or failed to create");
    ExpectFailedCheck("zol/src/ZOLVconfChecker", "CCTask::Create(\"ZOLVconfChecker\")");
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 0);

    Push(ItemFor("db/a") + kPairing, 2);
    ExpectNotRunning("pMonitor is NULL or failed to create");
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1) << "the checker has started";
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);

    fakes::bt_hid::FailRegistrations(-1);
    EXPECT_TRUE(m_manager->UpdatePolicy(Document(ItemFor("db/b") + kPairing)));
    EXPECT_TRUE(IsRunning()) << "a monitor that cannot start does not count";
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 1);
}

TEST_F(PolicyTasks, AnInstallMonitorThatCannotStartIsLeftOutAndTheOthersAreWatched) {
    const std::string other =
        "<monitor kind=\"1\" id=\"org.other\" name=\"Other\" method=\"11\" duration=\"60\" "
        "repetition=\"3\"/>";
    Push(ItemFor("db/a") + kInstall + kInstall + other, 3);

    EXPECT_TRUE(IsRunning());
    EXPECT_TRUE(Has("new TCAppInstallMonitor()->Create() fail"));
    EXPECT_TRUE(Has("AppId key is already exist. return false"));
    EXPECT_EQ(fakes::was::RegisteredIds(), std::vector<std::string>{"org.other"});
}

TEST_F(PolicyTasks, WhateverCannotStartIsTriedAgainUntilThePolicyIsWatched) {
    for (int threads = 0; threads < 5; ++threads) {
        fakes::dlog::Clear();
        Push(ItemFor("db/a") + kPairing + kInstall, threads);
        EXPECT_EQ(Count("not all of the policy is watched: trying again until it is"), 1) << threads;
        g_threadsLeft = 0;
        EXPECT_TRUE(LetRetryCome());
        EXPECT_FALSE(Has("all of the policy is watched now"));

        g_threadsLeft = -1;
        EXPECT_TRUE(LetRetryCome());

        EXPECT_TRUE(IsRunning());
        EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1) << threads;
        EXPECT_EQ(fakes::bt_hid::Registrations(), 1) << threads;
        EXPECT_EQ(fakes::was::RegisteredIds(), std::vector<std::string>{"org.app"}) << threads;
        EXPECT_EQ(Count("all of the policy is watched now"), 1) << threads;
        EXPECT_FALSE(LetRetryCome()) << threads;
    }
}

TEST_F(PolicyTasks, AttemptsComeAfterLongerAndLongerWaitsAndAfterASuccessAtOnceAgain) {
    StartWith("");
    for (int again = 0; again < 2; ++again) {
        fakes::vconf::Fail("db/a", fakes::vconf::FAIL_NOTIFY);
        EXPECT_TRUE(m_manager->UpdatePolicy(Document(ItemFor("db/a"))));
        for (const unsigned wait : {100U, 200U, 400U}) {
            EXPECT_EQ(RetryDelayMs(), wait) << again;
            EXPECT_TRUE(LetRetryCome());
        }
        fakes::vconf::Fail("db/a", fakes::vconf::FAIL_NONE);
        EXPECT_TRUE(LetRetryCome());
        EXPECT_EQ(RetryDelayMs(), 0U) << again;
        EXPECT_TRUE(m_manager->UpdatePolicy("<zolitem/>"));
    }
}

TEST_F(PolicyTasks, WhatRunsWhenTheRestIsTriedAgainIsLeftAlone) {
    fakes::vconf::SetInt("db/a", 1);
    fakes::vconf::SetString("db/zol/send_zol_files_path", "");
    Push(ItemFor("db/a") + ItemFor("db/b") + kPairing, 2);
    ASSERT_TRUE(fakes::dlog::WaitFor("vconf_set_str success"));
    const std::string path = fakes::vconf::GetString("db/zol/send_zol_files_path");

    EXPECT_TRUE(LetRetryCome());

    EXPECT_EQ(Count("m_Notify() CALL"), 1);
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 1);
    EXPECT_EQ(fakes::vconf::GetString("db/zol/send_zol_files_path"), path) << "still published";
}

TEST_F(PolicyTasks, AKeyWhoseWatchIsRefusedIsWatchedAsSoonAsItCanBe) {
    for (const char* key : {"db/a", "db/b"}) {
        fakes::vconf::Fail(key, fakes::vconf::FAIL_NOTIFY);
    }
    Push(ItemFor("db/a") + ItemFor("db/b") + ItemFor("db/c"));
    EXPECT_TRUE(IsRunning());
    EXPECT_TRUE(LetRetryCome());
    fakes::vconf::SetInt("db/b", 1);
    EXPECT_FALSE(Has("m_Notify() CALL"));

    for (const char* key : {"db/a", "db/b"}) {
        fakes::vconf::Fail(key, fakes::vconf::FAIL_NONE);
    }
    EXPECT_TRUE(LetRetryCome());

    EXPECT_EQ(Count("m_Notify() CALL"), 1) << "of the one that holds meanwhile";
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 0);
    EXPECT_EQ(fakes::vconf::Registrations("db/c"), 1);
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(PolicyTasks, TheKeyOfTheHandOverIsWatchedAsSoonAsItCanBe) {
    const char* const key = zol::HandOverQueue::KEY;
    fakes::vconf::Fail(key, fakes::vconf::FAIL_NOTIFY);
    Push(ItemFor("db/a") + ItemFor("db/b"));
    fakes::vconf::SetInt("db/a", 1);
    ASSERT_TRUE(fakes::dlog::WaitFor("vconf_set_str success"));
    fakes::clock::Advance(std::chrono::seconds(1));
    fakes::vconf::SetInt("db/b", 1);
    ASSERT_TRUE(fakes::dlog::WaitFor("vconfkey is not empty, add current path to list"));
    const std::string first = fakes::vconf::GetString(key);
    fakes::vconf::SetString(key, "");
    EXPECT_EQ(fakes::vconf::GetString(key), "") << "nobody was told of the change";

    fakes::vconf::Fail(key, fakes::vconf::FAIL_NONE);
    EXPECT_TRUE(LetRetryCome());

    EXPECT_EQ(fakes::vconf::Registrations(key), 1);
    EXPECT_NE(fakes::vconf::GetString(key), "");
    EXPECT_NE(fakes::vconf::GetString(key), first);
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(PolicyTasks, AWatchThatComesLateLeavesWhatIsPublishedAlone) {
    const char* const key = zol::HandOverQueue::KEY;
    fakes::vconf::Fail(key, fakes::vconf::FAIL_NOTIFY);
    Push(ItemFor("db/a") + ItemFor("db/b"));
    fakes::vconf::SetInt("db/a", 1);
    ASSERT_TRUE(fakes::dlog::WaitFor("vconf_set_str success"));
    const std::string first = fakes::vconf::GetString(key);
    fakes::clock::Advance(std::chrono::seconds(1));
    fakes::vconf::SetInt("db/b", 1);
    ASSERT_TRUE(fakes::dlog::WaitFor("vconfkey is not empty, add current path to list"));

    fakes::vconf::Fail(key, fakes::vconf::FAIL_NONE);
    EXPECT_TRUE(LetRetryCome());

    EXPECT_EQ(fakes::vconf::GetString(key), first) << "until its collector has emptied the key";
    fakes::vconf::SetString(key, "");
    EXPECT_TRUE(Eventually(
        [&] { return fakes::vconf::GetString(key) != "" && fakes::vconf::GetString(key) != first; }));
}

TEST_F(PolicyTasks, AnItemWithoutAKeyIsNotTriedAgain) {
    Push(ItemFor("") + ItemFor("db/a"));

    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(PolicyTasks, AMonitorThatIsRefusedIsRegisteredAsSoonAsItCanBe) {
    fakes::bt_hid::FailRegistrations(-1);
    Push(ItemFor("db/a") + kPairing + kInstall);
    EXPECT_TRUE(fakes::was::RegisteredIds().empty());

    EXPECT_TRUE(LetRetryCome());
    EXPECT_EQ(fakes::was::RegisteredIds(), std::vector<std::string>{"org.app"})
        << "whatever becomes of the others";
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);

    fakes::bt_hid::FailRegistrations(0);
    EXPECT_TRUE(LetRetryCome());
    EXPECT_EQ(fakes::bt_hid::Registrations(), 1);
    EXPECT_EQ(fakes::was::RegisteredIds(), std::vector<std::string>{"org.app"});
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(PolicyTasks, MemoryThatRunsOutWhileTasksStartDoesNotLeaveThePolicyUnwatched) {
    const std::string xml = "<zolitem>" + ItemFor("db/a") + kPairing + kInstall + "</zolitem>";
    std::size_t left = 0;
    int unread = 0;
    for (std::size_t allocation = 1; left == 0; ++allocation) {
        StartWith("");
        StorePolicy(xml);
        fakes::dlog::Clear();
        bool isTold = false;
        FailAllocation(allocation);
        try {
            m_manager->ReloadSchedule();
        } catch (const std::bad_alloc&) {
            isTold = true;
        }
        left = FailAllocation(0);
        const bool isUnread = !isTold && Has("Parsing failed.");
        unread += isUnread ? 1 : 0;
        if (isUnread || Has(isTold ? "TCNotifyManager()" : "totalCount[3]")) {
            LetRetryCome();
            ASSERT_EQ(fakes::vconf::Registrations("db/a"), 1) << allocation;
            ASSERT_EQ(fakes::bt_hid::Registrations(), 1) << allocation;
            ASSERT_EQ(fakes::was::RegisteredIds().size(), 1U) << allocation;
        }
        EXPECT_FALSE(LetRetryCome());
    }
    EXPECT_GT(unread, 0) << "the stored policy itself";
}

TEST_F(PolicyTasks, AnotherPolicyEndsTheAttempts) {
    Push(ItemFor("db/a") + kPairing, 1);
    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/b")));
    LetRetryCome();

    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 0);
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 1);
    EXPECT_FALSE(Has("all of the policy is watched now")) << "nothing was tried";
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(PolicyTasks, AnotherPolicyEndsTheAttemptsAtAWatchThatIsRefused) {
    fakes::vconf::Fail("db/a", fakes::vconf::FAIL_NOTIFY);
    Push(ItemFor("db/a"));
    fakes::vconf::SetBool(kRunningKey, false);
    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/b")));
    fakes::vconf::Fail("db/a", fakes::vconf::FAIL_NONE);
    EXPECT_TRUE(LetRetryCome());

    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 0);
    EXPECT_FALSE(Has("all of the policy is watched now")) << "nothing was tried";
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(PolicyTasks, APolicyOfInvalidItemsOnlyEndsTheAttemptsToo) {
    Push(ItemFor("db/a") + kPairing, 1);
    EXPECT_TRUE(m_manager->UpdatePolicy("<zolitem><zols key=\"db/b\"/></zolitem>"));
    LetRetryCome();

    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 0);
    EXPECT_FALSE(IsRunning());
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(PolicyTasks, AFlagThatIsClearedMeanwhileStaysClear) {
    Push(ItemFor("db/a"), 0);
    EXPECT_TRUE(m_manager->UpdatePolicy("<zolitem/>"));

    EXPECT_TRUE(LetRetryCome());

    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
    EXPECT_FALSE(IsRunning());
}

TEST_F(PolicyTasks, AtMostEightSetsRunAndTheNextPolicyWaitsForTheNextStart) {
    StartWith("");
    for (int set = 0; set < 9; ++set) {
        EXPECT_FALSE(Has("8 sets of tasks run already, the policy is applied at the next start"));
        EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/" + std::to_string(set))));
        EXPECT_TRUE(m_manager->UpdatePolicy("<zolitem/>"));
    }

    EXPECT_EQ(Count("8 sets of tasks run already, the policy is applied at the next start"), 1);
    EXPECT_EQ(fakes::vconf::Registrations("db/7"), 1);
    EXPECT_EQ(fakes::vconf::Registrations("db/8"), 0);
    EXPECT_EQ(StoredPolicy(), PolicyFor("db/8"));
    EXPECT_EQ(Applied().vconfMonitors.at(0).key, "db/7");

    Start();
    EXPECT_EQ(fakes::vconf::Registrations("db/8"), 1);
}

TEST_F(PolicyTasks, SetsOfWhichNothingRunsDoNotCount) {
    StartWith("");
    for (int set = 0; set < 9; ++set) {
        g_threadsLeft = 0;
        EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/a")));
    }
    g_threadsLeft = -1;

    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/b")));
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 1);
}

TEST_F(PolicyTasks, AtTheEndAllSetsTogetherReportForFiveSecondsAtMost) {
    StartWith("");
    for (const char* key : {"db/a", "db/b"}) {
        EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor(key)));
        EXPECT_TRUE(m_manager->UpdatePolicy("<zolitem/>"));
    }
    auto handOver = zol::HandOverQueue::Lock();  // each set stops where it hands its first report over
    for (const std::string key : {"db/a", "db/b"}) {
        fakes::vconf::SetInt(key, 1);
        ASSERT_TRUE(fakes::dlog::WaitFor("kpiDesc : {", key == "db/a" ? 1 : 2));
        fakes::vconf::SetInt(key, 1);
    }
    std::thread ending([this] { Stop(); });

    ASSERT_TRUE(fakes::dlog::WaitFor("[TCNotifyManager] Destroy"));
    fakes::clock::Advance(std::chrono::seconds(5));
    handOver.unlock();
    ending.join();

    EXPECT_EQ(Count("1 hits are given up, the daemon ends"), 2);
}

TEST_F(PolicyTasks, AtTheEndEveryPlatformCallbackOfEverySetIsWithdrawn) {
    Push(ItemFor("db/a") + kPairing + kInstall);
    EXPECT_TRUE(m_manager->UpdatePolicy(""));
    EXPECT_TRUE(m_manager->UpdatePolicy(Document(ItemFor("db/b") + kInstall)));
    EXPECT_EQ(fakes::was::RegisteredIds().size(), 2U);
    Stop();

    EXPECT_EQ(fakes::vconf::Registrations(), 0);
    EXPECT_EQ(fakes::bt_hid::Registrations(), 0);
    EXPECT_TRUE(fakes::was::RegisteredIds().empty());
}

}  // namespace
