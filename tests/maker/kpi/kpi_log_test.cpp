#include <gmock/gmock.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "KPILogFramework.h"
#include "base/sqlite_handles.h"
#include "device_paths.h"
#include "failing_new.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "fakes.h"
#include "files.h"
#include "full_disk.h"
#include "waiting.h"

namespace {

namespace fs = std::filesystem;
using KPILogFramework::CLogger;
using KPILogFramework::TSKpiEvent;
using testing::ElementsAre;

/// Another process at the same database.
class OtherConnection {
public:
    OtherConnection() {
        sqlite3* database = nullptr;
        sqlite3_open((fakes::Root() + ZOL_PATH_KPI_DB).c_str(), &database);
        m_database.reset(database);
    }
    bool Run(const std::string& sql) {
        return sqlite3_exec(m_database.get(), sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    }

private:
    base::DatabasePtr m_database;
};

class KpiLog : public testing::Test {
protected:
    KpiLog() { fakes::Reset(); }
    ~KpiLog() override {
        // What a test left waiting goes to a log that is thrown away.
        fakes::Reset();
        EXPECT_EQ(Add("next"), CLogger::RESULT_SUCCESS);
    }

    static std::string Host(const std::string& suffix = "") {
        return fakes::Root() + ZOL_PATH_KPI_DB + suffix;
    }
    static int Add(const std::string& description) {
        return CLogger::GetInstance().AddEventLogSync("20_errdata", "ZOL", "EV007", description);
    }
    static std::vector<TSKpiEvent> List(std::int64_t after = 0) {
        std::vector<TSKpiEvent> events;
        EXPECT_TRUE(CLogger::GetInstance().ListEvents(events, after));
        return events;
    }
    static std::vector<std::string> DescriptionsAfter(std::int64_t sequence) {
        std::vector<std::string> descriptions;
        for (const TSKpiEvent& event : List(sequence)) {
            descriptions.push_back(event.description);
        }
        return descriptions;
    }
    static std::vector<std::string> Descriptions() { return DescriptionsAfter(0); }
    /// What was there is a log no longer: the event that is added begins a new one.
    static void ExpectNewLog() {
        EXPECT_EQ(Add("after"), 1);
        EXPECT_THAT(Descriptions(), ElementsAre("after"));
    }
    static std::int64_t Dropped() { return CLogger::GetInstance().DroppedEvents(); }

    /// Many events at the price of one.
    static void Fill(int events) {
        ASSERT_TRUE(OtherConnection().Run(
            "WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n WHERE i < " +
            std::to_string(events) +
            ") INSERT INTO event (time, type, category, event_id, description) SELECT i, 't', 'c', 'e', i "
            "FROM n"));
    }
};

TEST_F(KpiLog, AnEventIsStoredWithItsFourTextsAndTheWallClock) {
    fakes::clock::SetWall(1700000055);

    EXPECT_EQ(Add("key=a;value=1;"), 1);

    const std::vector<TSKpiEvent> events = List();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].sequence, 1);
    EXPECT_EQ(events[0].timeSeconds, 1700000055);
    EXPECT_EQ(events[0].type, "20_errdata");
    EXPECT_EQ(events[0].category, "ZOL");
    EXPECT_EQ(events[0].eventId, "EV007");
    EXPECT_EQ(events[0].description, "key=a;value=1;");
}

TEST_F(KpiLog, EventsAreListedOldestFirstEvenWhenTheClockGoesBack) {
    Add("first");
    fakes::clock::SetWall(1);
    Add("second");

    EXPECT_THAT(Descriptions(), ElementsAre("first", "second"));
    EXPECT_EQ(List()[1].sequence, 2);
}

TEST_F(KpiLog, TextIsKeptByteForByte) {
    const std::string text = std::string("it's \"quoted\"; DROP TABLE event; \xc3\xa9") + '\0' + "tail";

    EXPECT_EQ(Add(text), 1);
    EXPECT_EQ(Add(""), 1);

    EXPECT_THAT(Descriptions(), ElementsAre(text, ""));
}

TEST_F(KpiLog, AStoreThatIsMissingOrJustBeingMadeIsAnEmptyList) {
    EXPECT_TRUE(List().empty());
    EXPECT_EQ(Dropped(), 0);
    EXPECT_FALSE(fs::exists(Host()));

    // Another process has made the file and not yet its tables.
    fakes::WriteDeviceFile(ZOL_PATH_KPI_DB, "");
    EXPECT_TRUE(List().empty());
    EXPECT_EQ(Dropped(), 0);
    EXPECT_FALSE(fakes::dlog::Has("cannot read the KPI log"));
}

TEST_F(KpiLog, TheFileMayBeReadByOwnerAndGroupOnly) {
    Add("x");

    for (const char* sidecar : {"", "-wal", "-shm"}) {
        EXPECT_EQ(ModeOf(Host(sidecar)), 0640U) << sidecar;
    }
}

TEST_F(KpiLog, AFullLogDropsItsOldestEventsAndCountsThem) {
    Add("1");
    Fill(CLogger::MAX_EVENTS - 1);
    EXPECT_EQ(Dropped(), 0);

    Add("one too many");
    EXPECT_EQ(Dropped(), 1);
    Add("two too many");

    const std::vector<TSKpiEvent> events = List();
    ASSERT_EQ(events.size(), static_cast<std::size_t>(CLogger::MAX_EVENTS));
    EXPECT_EQ(Dropped(), 2);
    EXPECT_EQ(events.front().sequence, 3);
    EXPECT_EQ(events.back().sequence, CLogger::MAX_EVENTS + 2);
    EXPECT_EQ(events.back().description, "two too many");
}

TEST_F(KpiLog, LongEventsDropTheOldestSoonerAndNeverTheNewest) {
    constexpr std::size_t kMiB = std::size_t{1024} * 1024;
    constexpr int kEvents = 24;
    for (int i = 0; i < kEvents; ++i) {
        ASSERT_EQ(Add(std::string(kMiB, 'a')), CLogger::RESULT_SUCCESS);
    }
    const std::vector<TSKpiEvent> events = List();
    EXPECT_EQ(events.size(), 15U);  // what is not text takes a part of the sixteenth
    EXPECT_EQ(events.back().sequence, kEvents);
    EXPECT_EQ(Dropped(), kEvents - 15);
    EXPECT_LT(fs::file_size(Host()), static_cast<std::uintmax_t>(CLogger::MAX_BYTES) + 2 * kMiB);

    ASSERT_EQ(Add(std::string(static_cast<std::size_t>(CLogger::MAX_BYTES) + 1, 'b')),
              CLogger::RESULT_SUCCESS);
    ASSERT_EQ(List().size(), 1U);
    EXPECT_EQ(List().front().description.front(), 'b');
}

TEST_F(KpiLog, ALogThatCannotCountWhatItDropsDropsNothing) {
    Add("1");
    Fill(CLogger::MAX_EVENTS - 1);
    ASSERT_TRUE(OtherConnection().Run(
        "CREATE TRIGGER stop BEFORE UPDATE ON dropped BEGIN SELECT RAISE(ABORT, 'no'); END"));

    EXPECT_NE(Add("one too many"), CLogger::RESULT_SUCCESS);

    EXPECT_EQ(List().front().sequence, 1);
    EXPECT_EQ(List().size(), static_cast<std::size_t>(CLogger::MAX_EVENTS));
}

TEST_F(KpiLog, EventsOfSeveralThreadsAreAllStored) {
    OnThreads(4, [](int thread) {
        for (int event = 0; event < 25; ++event) {
            EXPECT_EQ(Add(std::to_string(thread * 25 + event)), 1);
        }
    });

    const std::vector<std::string> all = Descriptions();
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), 100U);
}

TEST_F(KpiLog, AFileThatIsNoDatabaseIsSetAsideAndANewLogIsBegun) {
    const std::string garbage(10000, '#');
    fakes::WriteDeviceFile(ZOL_PATH_KPI_DB, garbage);

    ExpectNewLog();

    EXPECT_EQ(fakes::ReadDeviceFile(ZOL_PATH_KPI_DB ".damaged"), garbage);
    EXPECT_TRUE(fakes::dlog::Has("is damaged, set aside as " ZOL_PATH_KPI_DB ".damaged"));
}

TEST_F(KpiLog, ADatabaseWithABrokenPageIsSetAside) {
    Add("x");
    Fill(5000);
    ASSERT_TRUE(OtherConnection().Run("PRAGMA wal_checkpoint(TRUNCATE)"));
    const auto size = static_cast<std::size_t>(fs::file_size(Host()));
    std::string content = fakes::ReadDeviceFile(ZOL_PATH_KPI_DB);
    content.replace(size / 2, 8192, std::string(8192, '\xff'));
    fakes::Reset();
    fakes::WriteDeviceFile(ZOL_PATH_KPI_DB, content);

    ExpectNewLog();

    EXPECT_EQ(fs::file_size(Host(".damaged")), size);
}

TEST_F(KpiLog, DamageThatHappensAgainAndAgainKeepsTheNewestLogAndAlwaysGoesOn) {
    constexpr std::size_t kSize = 5000;  // no whole number of pages
    for (char fault = 'a'; fault < 'u'; ++fault) {
        fakes::WriteDeviceFile(ZOL_PATH_KPI_DB ".new", std::string(kSize, fault));
        fs::rename(Host(".new"), Host());
        fs::remove(Host("-wal"));  // which would heal it
        ExpectNewLog();
    }

    EXPECT_TRUE(fakes::ReadDeviceFile(ZOL_PATH_KPI_DB ".damaged") == std::string(kSize, 't'));
    const Files files = ReadFolder(fakes::Root() + ZOL_PATH_STATE_DIR);
    EXPECT_EQ(std::count_if(files.begin(), files.end(),
                            [](const auto& file) { return file.second.size() == kSize; }),
              1);
}

TEST_F(KpiLog, AJournalWithoutItsDatabaseIsKept) {
    fakes::WriteDeviceFile(ZOL_PATH_KPI_DB "-wal", "evidence");

    ExpectNewLog();

    EXPECT_EQ(fakes::ReadDeviceFile(ZOL_PATH_KPI_DB ".damaged-wal"), "evidence");
}

TEST_F(KpiLog, ReadingADamagedLogFailsAndLeavesItAlone) {
    const std::string garbage(4096, '#');
    fakes::WriteDeviceFile(ZOL_PATH_KPI_DB, garbage);
    std::vector<TSKpiEvent> events;

    EXPECT_FALSE(CLogger::GetInstance().ListEvents(events));
    EXPECT_EQ(Dropped(), -1);

    EXPECT_EQ(fakes::ReadDeviceFile(ZOL_PATH_KPI_DB), garbage);
}

TEST_F(KpiLog, ListsWhatFollowsASequenceNumber) {
    for (const char* description : {"one", "two", "three"}) {
        EXPECT_EQ(Add(description), CLogger::RESULT_SUCCESS);
    }
    const std::int64_t second = List()[1].sequence;

    EXPECT_THAT(DescriptionsAfter(second), ElementsAre("three"));
    EXPECT_THAT(DescriptionsAfter(second + 1), ElementsAre());
}

TEST_F(KpiLog, ListsAllOfALogThatWasBegunAnewAndHasNoNumberThatHigh) {
    EXPECT_EQ(Add("one"), CLogger::RESULT_SUCCESS);
    EXPECT_EQ(Add("two"), CLogger::RESULT_SUCCESS);
    const std::int64_t last = List().back().sequence;
    fakes::Reset();

    EXPECT_EQ(Add("new"), CLogger::RESULT_SUCCESS);

    EXPECT_THAT(DescriptionsAfter(last), ElementsAre("new"));
}

TEST_F(KpiLog, ADatabaseOfSomebodyElsesShapeIsSetAside) {
    fakes::MakeDeviceFolder(ZOL_PATH_STATE_DIR);
    ASSERT_TRUE(OtherConnection().Run("CREATE TABLE event (something TEXT)"));

    ExpectNewLog();

    EXPECT_TRUE(fs::exists(Host(".damaged")));
}

TEST_F(KpiLog, ALogThatStaysLockedIsGivenUpAfterTwoSeconds) {
    Add("before");
    OtherConnection other;
    ASSERT_TRUE(other.Run("BEGIN EXCLUSIVE"));

    EXPECT_EQ(Add("late"), CLogger::RESULT_WRITE_FAILED);
    EXPECT_EQ(fakes::clock::SleptUs(), 2000000U);
    EXPECT_EQ(List().size(), 1U);

    ASSERT_TRUE(other.Run("COMMIT"));
    EXPECT_EQ(Add("after"), 1);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"before", "late", "after"}));
}

TEST_F(KpiLog, ALockThatIsReleasedInTimeDelaysTheEventOnly) {
    Add("before");
    OtherConnection other;
    ASSERT_TRUE(other.Run("BEGIN EXCLUSIVE"));
    fakes::clock::SleepAdvances(false);
    int result = 0;
    std::thread writer([&result] { result = Add("late"); });
    ASSERT_TRUE(fakes::clock::AwaitSleeper(std::chrono::milliseconds(20)));

    ASSERT_TRUE(other.Run("COMMIT"));
    fakes::clock::SleepAdvances(true);
    fakes::clock::Advance(std::chrono::milliseconds(20));
    writer.join();

    EXPECT_EQ(result, 1);
    EXPECT_EQ(List().size(), 2U);
}

TEST_F(KpiLog, AFullDiskDelaysTheEventUntilTheNextOne) {
    EXPECT_EQ(Add("before"), 1);
    fakes::clock::SetWall(1700000055);
    int result = 0;
    {
        const FullDisk full(fs::file_size(Host("-wal")));
        result = Add("late");
    }
    EXPECT_EQ(result, CLogger::RESULT_WRITE_FAILED);
    EXPECT_TRUE(fakes::dlog::Has("cannot write the KPI log " ZOL_PATH_KPI_DB));

    fakes::clock::SetWall(1700000099);
    EXPECT_EQ(Add("after"), 1);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"before", "late", "after"}));
    EXPECT_EQ(List()[1].timeSeconds, 1700000055) << "when it happened";
    EXPECT_FALSE(fs::exists(Host(".damaged")));
    EXPECT_EQ(Add("once"), 1);
    EXPECT_EQ(List().size(), 4U) << "none is stored twice";
}

TEST_F(KpiLog, OfEventsThatCannotBeStoredTheNewestWaitAndTheOthersAreCounted) {
    fakes::WriteDeviceFile(ZOL_PATH_STATE_DIR, "a file in its place");
    const std::size_t events = CLogger::MAX_WAITING_EVENTS + 3;
    for (std::size_t i = 0; i < events; ++i) {
        EXPECT_EQ(Add(std::to_string(i)), CLogger::RESULT_NO_STORE);
    }
    EXPECT_EQ(fakes::dlog::Count("too many KPI events wait to be stored: the 1 oldest are dropped"), 3);

    fs::remove(fakes::Root() + ZOL_PATH_STATE_DIR);
    EXPECT_EQ(Add("after"), 1);

    EXPECT_EQ(List().size(), CLogger::MAX_WAITING_EVENTS + 1);
    EXPECT_EQ(Descriptions().front(), "3");
    EXPECT_EQ(Dropped(), 3);
    EXPECT_EQ(Add("later"), 1);
    EXPECT_EQ(Dropped(), 3) << "counted once";
}

TEST_F(KpiLog, LongEventsThatCannotBeStoredWaitInBoundedMemory) {
    fakes::WriteDeviceFile(ZOL_PATH_STATE_DIR, "a file in its place");
    const std::string third(CLogger::MAX_WAITING_BYTES / 3, 'a');
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(Add(third), CLogger::RESULT_NO_STORE);
    }
    fs::remove(fakes::Root() + ZOL_PATH_STATE_DIR);
    EXPECT_EQ(Add("after"), 1);

    EXPECT_EQ(List().size(), 3U) << "what is not description takes a part of the third";
    EXPECT_EQ(Dropped(), 2);
}

TEST_F(KpiLog, MemoryThatRunsOutDelaysTheEventAtMostAndNeverCostsTheLog) {
    EXPECT_EQ(Add("before"), 1);
    std::size_t refused = 0;
    constexpr std::size_t kAllocations = 30;  // more than one event takes
    for (std::size_t next = 1; next <= kAllocations; ++next) {
        FailAllocation(next);
        const int result = Add("allocation " + std::to_string(next));
        FailAllocation(0);
        refused += result == CLogger::RESULT_SUCCESS ? 0 : 1;
        EXPECT_EQ(Add("between"), 1) << next;
    }

    EXPECT_GT(refused, 5U);
    EXPECT_LT(refused, kAllocations);
    // At most one is lost: the event's own allocation may be the first.
    EXPECT_GE(List().size(), 2 * kAllocations);
    EXPECT_FALSE(fs::exists(Host(".damaged")));
}

TEST_F(KpiLog, ADiskThatIsFullFromTheStartMeansNoStore) {
    int result = 0;
    {
        const FullDisk full(0);
        result = Add("late");
    }
    EXPECT_EQ(result, CLogger::RESULT_NO_STORE);

    EXPECT_EQ(Add("after"), 1);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"late", "after"}));
}

TEST_F(KpiLog, AStateFolderThatCannotBeMadeMeansNoStore) {
    fakes::WriteDeviceFile(ZOL_PATH_STATE_DIR, "a file in its place");

    EXPECT_EQ(Add("lost"), CLogger::RESULT_NO_STORE);
}

TEST_F(KpiLog, ALinkInPlaceOfTheDatabaseIsRefused) {
    fakes::MakeDeviceFolder(ZOL_PATH_STATE_DIR);
    fakes::WriteDeviceFile("/etc/precious", "");
    fs::create_symlink(fakes::Root() + "/etc/precious", Host());

    EXPECT_EQ(Add("lost"), CLogger::RESULT_NO_STORE);

    std::vector<TSKpiEvent> events;
    EXPECT_FALSE(CLogger::GetInstance().ListEvents(events));
    EXPECT_EQ(fs::file_size(fakes::Root() + "/etc/precious"), 0U);
    EXPECT_TRUE(fs::is_symlink(Host()));
}

TEST_F(KpiLog, IsKeptBehindALinkOfTheImage) {
    const fs::path root = fakes::Root();
    fs::create_directory(root / "opt");
    fs::rename(root / "var", root / "opt/var");
    fs::create_symlink("opt/var", root / "var");

    EXPECT_EQ(Add("kept"), 1);

    EXPECT_EQ(List().size(), 1U);
    EXPECT_TRUE(fs::is_regular_file(root / ("opt" ZOL_PATH_KPI_DB)));
}

TEST_F(KpiLog, ALogThatWasRemovedIsBegunAnew) {
    Add("before");
    for (const char* sidecar : {"", "-wal", "-shm"}) {
        fs::remove(Host(sidecar));
    }

    ExpectNewLog();
}

TEST_F(KpiLog, MemoryThatTheDatabaseLacksAtAnyMomentLosesNoEvent) {
    std::vector<std::string> added;
    const auto add = [&added] {
        added.push_back(std::to_string(added.size()));
        return Add(added.back());
    };
    ASSERT_EQ(add(), CLogger::RESULT_SUCCESS);
    int failures = 0;
    for (std::int64_t memory = 0;; memory += 128) {
        ASSERT_LT(memory, 1 << 20);
        sqlite3_hard_heap_limit64(sqlite3_memory_used() + memory);
        const int result = add();
        sqlite3_hard_heap_limit64(0);
        if (result == CLogger::RESULT_SUCCESS) {
            break;
        }
        ++failures;
        ASSERT_EQ(add(), CLogger::RESULT_SUCCESS) << "with memory again";
    }
    EXPECT_GT(failures, 10);
    EXPECT_EQ(Descriptions(), added);
    EXPECT_FALSE(fs::exists(Host(".damaged")));
}

}  // namespace
