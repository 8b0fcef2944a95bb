#include "collector.h"

#include <string>
#include <vector>

#include "fake_vconf.h"
#include "full_disk.h"
#include "hand_over.h"
#include "report_fixture.h"
#include "retry_timer.h"
#include "waiting.h"

namespace {

using collector::Collector;
using collector::Spool;

constexpr unsigned kSettleSeconds = 3600;  // no look comes by itself

class Collectors : public ReportTest {
protected:
    Collectors() { EXPECT_FALSE(m_spool.Open(m_folder.Path() + "/spool")); }
    ~Collectors() override { fakes::vconf::Fail(reports::kHandOverKey, fakes::vconf::FAIL_NONE); }

    static void Publish(const std::string& name) {
        fakes::vconf::SetString(reports::kHandOverKey, reports::PathOf(name));
    }
    static std::string Key() { return fakes::vconf::GetString(reports::kHandOverKey); }
    std::size_t Said(const std::string& part) const {
        return static_cast<std::size_t>(
            std::count_if(m_said.begin(), m_said.end(),
                          [&](const std::string& line) { return line.find(part) != std::string::npos; }));
    }

    const TemporaryFolder m_folder;
    std::vector<std::string> m_said;
    int m_taken = 0;
    Spool m_spool{{}, [this](const std::string& line) { m_said.push_back(line); }};
    Collector m_collector{m_spool, kSettleSeconds,
                          [this](const std::string& line) { m_said.push_back(line); }, [this] { ++m_taken; }};
};

TEST_F(Collectors, TakeWhatWasPublishedBeforeTheyStarted) {
    MakeReport();
    Publish(kName);
    ASSERT_TRUE(m_collector.Start());
    EXPECT_EQ(Key(), "");
    EXPECT_EQ(m_taken, 1);
}

TEST_F(Collectors, TakeWhatIsPublishedLater) {
    ASSERT_TRUE(m_collector.Start());
    MakeReport();
    Publish(kName);
    EXPECT_EQ(Key(), "");
    EXPECT_EQ(m_taken, 1);
    EXPECT_TRUE(WasTaken(m_spool, kName));
}

TEST_F(Collectors, TakeWhatIsPublishedBeforeWhatWasLeftLying) {
    MakeReport("a_1");
    MakeReport("b_2");
    SetAge("b_2", 0);
    ASSERT_TRUE(m_collector.Start());
    // Not told yet.
    ASSERT_EQ(vconf_set_str(reports::kHandOverKey, reports::PathOf("b_2").c_str()), 0);
    ASSERT_TRUE(LetRetryCome());
    EXPECT_TRUE(WasTaken(m_spool, "b_2"));
    EXPECT_FALSE(WasTaken(m_spool, "a_1"));
}

TEST_F(Collectors, TakeWhatWasLeftLyingOnceNothingIsPublishedAnyMore) {
    MakeReport("a_1");
    MakeReport("b_2");
    ASSERT_TRUE(m_collector.Start());
    Publish("b_2");
    EXPECT_EQ(m_taken, 1);
    fakes::vconf::Deliver();

    ASSERT_TRUE(LetRetryCome());
    EXPECT_EQ(m_taken, 2);
    EXPECT_TRUE(WasTaken(m_spool, "a_1"));
    EXPECT_FALSE(LetRetryCome()) << "nothing is left to do";
}

TEST_F(Collectors, LeaveLyingWhatMayStillBeWrittenAndLookAgain) {
    MakeReport("a_1");
    SetAge("a_1", 3);
    MakeReport("b_2");
    fs::remove(HostOf("b_2") + "/header.json");
    SetAge("b_2", 60);
    ASSERT_TRUE(m_collector.Start());
    ASSERT_TRUE(LetRetryCome());
    EXPECT_EQ(m_taken, 0);

    fakes::clock::Advance(std::chrono::seconds(10));
    ASSERT_TRUE(LetRetryCome());
    EXPECT_EQ(m_taken, 1);
    EXPECT_TRUE(WasTaken(m_spool, "a_1"));
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(Collectors, DoNotTakeAReportTwiceThatIsPublishedLater) {
    MakeReport();
    ASSERT_TRUE(m_collector.Start());
    ASSERT_TRUE(LetRetryCome());
    EXPECT_EQ(m_taken, 1);
    Publish(kName);
    EXPECT_EQ(Key(), "");
    EXPECT_EQ(m_taken, 1);
}

TEST_F(Collectors, TakeWhatTheDaemonAddedToAReportThatWasTakenBeforeItEnded) {
    MakeReport();
    SetAge(kName, 0);
    Publish(kName);
    ASSERT_TRUE(m_collector.Start());
    ASSERT_EQ(m_taken, 1);
    fakes::vconf::Deliver();
    WriteFile(HostOf(kName) + "/header.json", HeaderText("1700000000") + "\n");
    SetAge(kName, 60);

    ASSERT_TRUE(LetRetryCome());

    EXPECT_EQ(m_taken, 2);
    EXPECT_FALSE(LetRetryCome()) << "nothing is left to do";
}

TEST_F(Collectors, LookNoMoreWhileAReportIsPublished) {
    MakeReport("a_1");
    ASSERT_TRUE(m_collector.Start());
    fakes::vconf::Fail(reports::kHandOverKey, fakes::vconf::FAIL_SET);
    MakeReport("b_2");
    SetAge("b_2", 0);
    Publish("b_2");
    ASSERT_TRUE(LetRetryCome());
    EXPECT_FALSE(WasTaken(m_spool, "a_1"));
    EXPECT_EQ(Said("the key store cannot be used"), 1U);
    EXPECT_EQ(m_taken, 1);
}

TEST_F(Collectors, SayInOneLineWhatLastsAndGoOn) {
    MakeReport();
    fakes::vconf::Fail(reports::kHandOverKey, fakes::vconf::FAIL_GET);
    Publish(kName);
    ASSERT_TRUE(m_collector.Start());
    ASSERT_TRUE(LetRetryCome());
    ASSERT_TRUE(LetRetryCome());
    EXPECT_EQ(Said("the key store cannot be used"), 1U);
    fakes::vconf::Fail(reports::kHandOverKey, fakes::vconf::FAIL_NONE);
    ASSERT_TRUE(LetRetryCome());
    EXPECT_EQ(m_taken, 1);
    EXPECT_EQ(Said("goes on"), 1U);

    fakes::vconf::Deliver();
    fakes::vconf::Fail(reports::kHandOverKey, fakes::vconf::FAIL_GET);
    ASSERT_TRUE(LetRetryCome());
    EXPECT_EQ(RetryDelayMs(), 100U) << "the first of this time";
    ASSERT_TRUE(LetRetryCome());
    EXPECT_EQ(RetryDelayMs(), 200U);
}

TEST_F(Collectors, KeepAReportPublishedForWhichThereIsNoRoom) {
    MakeReport();
    WriteFile(HostOf(kName) + "/core", std::string(20000, 'x'));
    ASSERT_TRUE(m_collector.Start());
    {
        const FullDisk full(10000);
        Publish(kName);
        EXPECT_EQ(Key(), reports::PathOf(kName));
        EXPECT_EQ(Said("cannot copy"), 1U);
    }
    ASSERT_TRUE(LetRetryCome());
    EXPECT_EQ(Key(), "");
    EXPECT_EQ(m_taken, 1);
}

TEST_F(Collectors, TellOfAReportAlsoWhenItsMarkCannotBeWritten) {
    const std::string marks = m_folder.Path() + "/spool/taken";
    fs::remove(marks);
    WriteFile(marks, "");
    MakeReport();
    ASSERT_TRUE(m_collector.Start());

    Publish(kName);
    EXPECT_EQ(m_taken, 1);
    EXPECT_NE(Key(), "") << "it is taken once more";
    fs::remove(marks);
    fs::create_directory(marks);
    ASSERT_TRUE(LetRetryCome());

    EXPECT_EQ(Key(), "");
    EXPECT_EQ(m_taken, 1);
}

TEST_F(Collectors, AreNotHeldUpByWhatIsNoReport) {
    ASSERT_TRUE(m_collector.Start());
    fs::create_directory_symlink("/etc", HostOf("link_1"));
    for (const char* path : {"/tmp/zol/link_1", "/tmp/zol/gone_1", "/etc"}) {
        fakes::vconf::SetString(reports::kHandOverKey, path);
        EXPECT_EQ(Key(), "") << path;
    }
    EXPECT_EQ(m_said.size(), 3U);
    EXPECT_EQ(m_taken, 0);
    ASSERT_TRUE(LetRetryCome());
    EXPECT_EQ(m_said.size(), 3U);
}

TEST_F(Collectors, SayThatTheyGoOnOnlyOfWhatGoesOn) {
    MakeReport("a_1");
    // There it cannot be remembered that it was taken.
    fs::create_directories(m_folder.Path() + "/spool/taken/a_1/x");
    ASSERT_TRUE(m_collector.Start());
    ASSERT_TRUE(LetRetryCome());
    ASSERT_EQ(Said("taken/a_1"), 1U);

    MakeReport("b_2");
    Publish("b_2");
    fakes::vconf::Deliver();
    ASSERT_TRUE(LetRetryCome());

    EXPECT_EQ(m_taken, 2);
    EXPECT_EQ(Said("goes on"), 0U);
    EXPECT_EQ(Said("taken/a_1"), 1U);
}

TEST_F(Collectors, SayThatTheyMayNotWatchTheKey) {
    fakes::vconf::Fail(reports::kHandOverKey, fakes::vconf::FAIL_NOTIFY);
    EXPECT_FALSE(m_collector.Start());
}

TEST_F(Collectors, ForgetReportsThatLieThereNoLonger) {
    MakeReport();
    ASSERT_TRUE(m_collector.Start());
    ASSERT_TRUE(LetRetryCome());
    ASSERT_TRUE(WasTaken(m_spool, kName));
    fs::remove_all(Host("/tmp/zol"));
    fakes::vconf::SetString(reports::kHandOverKey, "");
    ASSERT_TRUE(LetRetryCome());
    EXPECT_FALSE(WasTaken(m_spool, kName));
}

}  // namespace
