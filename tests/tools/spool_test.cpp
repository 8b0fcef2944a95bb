#include "spool.h"

#include <string>
#include <utility>
#include <vector>

#include "full_disk.h"
#include "report_fixture.h"
#include "unprivileged.h"

namespace {

using collector::Entry;
using collector::Limits;
using collector::Spool;
using collector::State;
using reports::Outcome;
using reports::Problem;

constexpr std::uint64_t kBlock = 4096;
/// A report of a header alone: its two folders and the file.
constexpr std::uint64_t kHeaderBytes = 3 * kBlock;

class Spools : public ReportTest {
protected:
    Spools() { Restart(); }

    /// As after a start of the collector.
    void Restart(const Limits& limits = {}) {
        m_spool.reset();
        m_spool =
            std::make_unique<Spool>(limits, [this](const std::string& line) { m_said.push_back(line); });
        EXPECT_FALSE(m_spool->Open(m_path));
    }
    Outcome Take(const std::string& name = kName) {
        reports::ReportRoot root;
        const Outcome outcome = root.Open();
        return outcome ? outcome : m_spool->Take(root, name, m_isNew);
    }
    /// Takes a report with a body of so many blocks.
    void TakeWithBody(const std::string& name, std::size_t blocks) {
        MakeReport(name);
        if (blocks > 0) {
            WriteFile(HostOf(name) + "/below/core", std::string(blocks * kBlock, 'x'));
        }
        const Outcome outcome = Take(name);
        EXPECT_FALSE(outcome) << outcome.text;
    }
    std::vector<Entry> List() const {
        std::vector<Entry> entries;
        EXPECT_FALSE(collector::ListSpool(m_path, entries));
        return entries;
    }
    /// The names of the reports, oldest first, with their states.
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const Entry& entry : List()) {
            reports::Report report;
            base::UniqueFd folder;
            EXPECT_FALSE(collector::OpenEntry(m_spool->PathOf(entry), folder, report));
            names.push_back(report.name + (entry.isWhole ? "" : " header") +
                            (entry.state == State::Refused ? " refused" : ""));
            EXPECT_EQ(report.files.size() > 1 || entry.bodyBytes == 0, true);
        }
        return names;
    }
    using Texts = std::vector<std::string>;

    const TemporaryFolder m_folder;
    const std::string m_path = m_folder.Path() + "/spool";
    std::vector<std::string> m_said;
    std::unique_ptr<Spool> m_spool;
    bool m_isNew = false;
};

TEST_F(Spools, KeepReportsInTheOrderInWhichTheyWereTaken) {
    for (const char* name : {"z_1", "a_3", "m_2"}) {
        TakeWithBody(name, 1);
        EXPECT_TRUE(m_isNew);
    }
    EXPECT_EQ(Names(), (Texts{"z_1", "a_3", "m_2"}));
    EXPECT_EQ(ReadFile(m_spool->PathOf(*m_spool->First()) + "/z_1/header.json"), HeaderText("1700000000"));
    EXPECT_EQ(ReadFile(m_spool->PathOf(*m_spool->First()) + "/z_1/below/core").size(), kBlock);
    EXPECT_TRUE(fs::exists(HostOf("z_1")));
    EXPECT_EQ(m_spool->Counts().taken, 3);

    Restart();
    TakeWithBody("b_4", 0);
    EXPECT_EQ(Names(), (Texts{"z_1", "a_3", "m_2", "b_4"}));
    EXPECT_EQ(m_spool->Counts().taken, 4);
    EXPECT_EQ(ModeOf(m_path), 0700U);
}

TEST_F(Spools, TakeAReportOnceAlsoWhenItIsWithTheServer) {
    MakeReport();
    ASSERT_FALSE(Take());
    ASSERT_FALSE(Take());
    EXPECT_FALSE(m_isNew);
    const Entry entry = *m_spool->First();
    ASSERT_FALSE(m_spool->Remove(entry));
    EXPECT_EQ(m_spool->First(), nullptr);
    EXPECT_TRUE(WasTaken(*m_spool, kName));

    Restart();
    ASSERT_FALSE(Take());
    EXPECT_FALSE(m_isNew);
    EXPECT_EQ(Names(), Texts());
    EXPECT_EQ(m_spool->Counts().uploaded, 1);

    // Another report of that name.
    WriteFile(HostOf(kName) + "/core", "x");
    ASSERT_FALSE(Take());
    EXPECT_TRUE(m_isNew);
}

TEST_F(Spools, ForgetReportsThatLieThereNoLonger) {
    TakeWithBody("a_1", 0);
    TakeWithBody("b_2", 0);
    m_spool->ForgetAllBut({"b_2"});
    EXPECT_FALSE(WasTaken(*m_spool, "a_1"));
    EXPECT_TRUE(WasTaken(*m_spool, "b_2"));
}

TEST_F(Spools, RememberAReportWhoseTakingWasCutOff) {
    MakeReport();
    ASSERT_FALSE(Take());
    fs::remove(m_path + "/taken/" + kName);
    Restart();
    ASSERT_FALSE(Take());
    EXPECT_FALSE(m_isNew);
    EXPECT_TRUE(WasTaken(*m_spool, kName));
}

TEST_F(Spools, DropTheOldestBodiesFirstAndKeepTheirHeaders) {
    Limits limits;
    limits.bytes = 3 * kHeaderBytes + 8 * kBlock;
    Restart(limits);
    TakeWithBody("a_1", 4);
    TakeWithBody("b_2", 4);
    EXPECT_EQ(Names(), (Texts{"a_1", "b_2"}));
    EXPECT_TRUE(m_said.empty());

    TakeWithBody("c_3", 2);

    EXPECT_EQ(Names(), (Texts{"a_1 header", "b_2", "c_3"}));
    EXPECT_EQ(m_spool->Counts().droppedBodies, 1);
    EXPECT_EQ(m_said.size(), 1U);
    Restart(limits);
    EXPECT_EQ(m_spool->Counts().droppedBodies, 1);
    EXPECT_EQ(Names(), (Texts{"a_1 header", "b_2", "c_3"}));
    TakeWithBody("d_4", 0);
    EXPECT_EQ(Names(), (Texts{"a_1 header", "b_2 header", "c_3", "d_4"}));
}

TEST_F(Spools, DropTheOldestReportsWhenTheirHeadersAreTooMuch) {
    Limits limits;
    limits.bytes = 2 * kHeaderBytes + 4 * kBlock;
    Restart(limits);
    TakeWithBody("a_1", 0);
    TakeWithBody("b_2", 4);
    TakeWithBody("c_3", 7);

    EXPECT_EQ(Names(), (Texts{"c_3"}));
    EXPECT_EQ(m_spool->Counts().droppedBodies, 1);
    EXPECT_EQ(m_spool->Counts().droppedReports, 2);

    TakeWithBody("d_4", 4);
    EXPECT_EQ(Names(), (Texts{"c_3 header", "d_4"}));
    TakeWithBody("e_5", 0);
    EXPECT_EQ(Names(), (Texts{"c_3 header", "d_4 header", "e_5"}));
}

TEST_F(Spools, DropTheOldestReportsWhenTheyAreTooMany) {
    Limits limits;
    limits.reports = 2;
    Restart(limits);
    for (const char* name : {"a_1", "b_2", "c_3"}) {
        TakeWithBody(name, 1);
    }
    EXPECT_EQ(Names(), (Texts{"b_2", "c_3"}));
    EXPECT_EQ(m_spool->Counts().droppedReports, 1);
    EXPECT_EQ(m_spool->Counts().droppedBodies, 0);
}

TEST_F(Spools, KeepTheHeaderOfAReportThatIsLargerThanTheyAre) {
    Limits limits;
    limits.bytes = 16 * kBlock;
    Restart(limits);
    TakeWithBody("a_1", 1);
    TakeWithBody("b_2", 16);

    EXPECT_EQ(Names(), (Texts{"a_1", "b_2 header"}));
    EXPECT_EQ(m_spool->Counts().droppedBodies, 1);
    ASSERT_FALSE(Take("b_2"));
    EXPECT_FALSE(m_isNew);
}

TEST_F(Spools, FinishTheDroppingOfABodyThatWasCutOff) {
    TakeWithBody("a_1", 4);
    WriteFile(m_spool->PathOf(*m_spool->First()) + "/header_only", "");
    Restart();
    EXPECT_EQ(Names(), (Texts{"a_1 header"}));
    EXPECT_EQ(List()[0].bytes, kHeaderBytes);
}

TEST_F(Spools, SetAsideWhatTheServerRefused) {
    Limits limits;
    limits.reports = 2;
    Restart(limits);
    TakeWithBody("a_1", 0);
    TakeWithBody("b_2", 0);
    ASSERT_FALSE(m_spool->Refuse(Entry(*m_spool->First())));
    EXPECT_EQ(m_spool->First()->name.substr(0, 13), "000000000002-");

    Restart(limits);
    EXPECT_EQ(Names(), (Texts{"a_1 refused", "b_2"}));
    EXPECT_EQ(m_spool->First()->name.substr(0, 13), "000000000002-");
    EXPECT_EQ(m_spool->Counts().refused, 1);
    EXPECT_EQ(ReadFolder(m_path + "/refused").size(), 1U);

    ASSERT_FALSE(m_spool->Refuse(Entry(*m_spool->First())));
    TakeWithBody("c_3", 0);
    EXPECT_EQ(Names(), (Texts{"b_2 refused", "c_3"}));
    EXPECT_EQ(m_spool->Counts().droppedReports, 1);
    ASSERT_FALSE(m_spool->Refuse(Entry(*m_spool->First())));
    EXPECT_EQ(m_spool->First(), nullptr);
    TakeWithBody("d_4", 0);
    EXPECT_EQ(Names(), (Texts{"c_3 refused", "d_4"}));
    EXPECT_EQ(m_spool->Counts().droppedReports, 2);
}

TEST_F(Spools, ForgetWhatSomebodyTookOutOfThem) {
    Limits limits;
    limits.reports = 2;
    Restart(limits);
    TakeWithBody("a_1", 1);
    TakeWithBody("b_2", 1);
    const Entry first = *m_spool->First();
    fs::remove_all(m_spool->PathOf(first));
    TakeWithBody("c_3", 1);
    EXPECT_EQ(Names(), (Texts{"b_2", "c_3"}));
    EXPECT_EQ(m_spool->Counts().droppedReports, 0);

    fs::remove_all(m_spool->PathOf(*m_spool->First()));
    EXPECT_EQ(m_spool->First()->name.substr(0, 13), "000000000003-");
    ASSERT_FALSE(m_spool->Remove(first));
    EXPECT_EQ(m_spool->Counts().uploaded, 1);
    ASSERT_FALSE(m_spool->Refuse(first));
    EXPECT_EQ(m_spool->Counts().refused, 0);
    EXPECT_EQ(Names(), (Texts{"c_3"}));
}

TEST_F(Spools, RemoveWhatIsLeftOfAnEntryWhoseReportSomebodyTookOut) {
    Limits limits;
    limits.reports = 2;
    Restart(limits);
    TakeWithBody("a_1", 1);
    TakeWithBody("b_2", 1);
    const std::string first = m_spool->PathOf(*m_spool->First());
    fs::remove_all(first + "/a_1");
    EXPECT_EQ(List().at(0).bytes, 2 * kBlock) << "its folders";
    Restart(limits);

    ASSERT_NE(m_spool->First(), nullptr);
    EXPECT_EQ(m_spool->First()->name.substr(0, 13), "000000000002-");
    EXPECT_FALSE(fs::exists(first));
    ASSERT_EQ(m_said.size(), 1U);
    EXPECT_EQ(m_said[0].find("its report was taken out, the rest is removed: 000000000001-"), 0U);

    fs::remove_all(m_spool->PathOf(*m_spool->First()) + "/b_2");
    TakeWithBody("c_3", 1);
    TakeWithBody("d_4", 1);
    EXPECT_EQ(Names(), (Texts{"c_3", "d_4"}));
    EXPECT_EQ(m_spool->Counts().droppedReports, 0);
}

TEST_F(Spools, DropTheOldestThatCannotBeOpenedWhenThereIsNoRoom) {
    Limits limits;
    limits.bytes = 8 * kBlock;
    Restart(limits);
    TakeWithBody("a_1", 4);
    // Its folder is no folder any more.
    const std::string entry = m_spool->PathOf(*m_spool->First());
    fs::remove_all(entry);
    WriteFile(entry, "");
    EXPECT_NE(m_spool->First(), nullptr) << "it may be another time";

    TakeWithBody("b_2", 4);

    EXPECT_FALSE(fs::exists(entry));
    EXPECT_EQ(Names(), (Texts{"b_2"}));
    EXPECT_EQ(m_spool->Counts().droppedReports, 1);
}

TEST_F(Spools, DropWhatCannotBeOpenedRatherThanOlderReports) {
    Limits limits;
    limits.bytes = 8 * kBlock;
    Restart(limits);
    TakeWithBody("a_1", 1);
    TakeWithBody("b_2", 1);
    const std::string broken = m_spool->PathOf(List().back());
    fs::remove_all(broken);
    WriteFile(broken, "");

    TakeWithBody("c_3", 1);

    EXPECT_FALSE(fs::exists(broken));
    EXPECT_EQ(Names(), (Texts{"a_1 header", "c_3"}));
}

TEST_F(Spools, KeepTheFolderOfAReportThatWasTakenOutInMindUntilItIsRemoved) {
    TakeWithBody("a_1", 1);
    const std::string entry = m_spool->PathOf(*m_spool->First());
    fs::remove_all(entry + "/a_1");
    for (const std::string& folder : {m_path, m_path + "/.incoming", entry}) {
        ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
    }
    ASSERT_EQ(chmod((m_path + "/reports").c_str(), 0555), 0);
    {
        const Unprivileged unprivileged;
        EXPECT_NE(m_spool->First(), nullptr);
    }
    ASSERT_EQ(chmod((m_path + "/reports").c_str(), 0700), 0);
    EXPECT_EQ(m_spool->First(), nullptr);
    EXPECT_FALSE(fs::exists(entry));
}

TEST_F(Spools, MissNoReportThatCannotBeOpenedJustNow) {
    TakeWithBody("a_1", 1);
    const std::string entry = m_spool->PathOf(*m_spool->First());
    const std::string report = entry + "/a_1";
    for (const std::string& folder : {m_path, m_path + "/reports", m_path + "/.incoming", entry}) {
        ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
    }
    for (const auto& [folder, mode] : {std::pair(report, 0), std::pair(m_path + "/reports", 0666)}) {
        const mode_t usual = ModeOf(folder);
        ASSERT_EQ(chmod(folder.c_str(), static_cast<mode_t>(mode)), 0);
        {
            const Unprivileged unprivileged;
            EXPECT_NE(m_spool->First(), nullptr) << folder;
        }
        ASSERT_EQ(chmod(folder.c_str(), usual), 0);
    }
    EXPECT_EQ(Names(), (Texts{"a_1"}));
}

TEST_F(Spools, TakeAReportAgainThatHasChangedSince) {
    MakeReport();
    ASSERT_FALSE(Take());
    SetAge(kName, 30);
    EXPECT_FALSE(WasTaken(*m_spool, kName)) << "its folder has changed, so that it may have";
    ASSERT_FALSE(Take());
    EXPECT_FALSE(m_isNew);
    EXPECT_TRUE(WasTaken(*m_spool, kName));
}

TEST_F(Spools, KeepAReportThatHasGotTheNumberOfOneThatWasDropped) {
    Limits limits;
    limits.reports = 1;
    Restart(limits);
    TakeWithBody("a_1", 1);
    const Entry uploading = *m_spool->First();
    TakeWithBody("b_2", 1);
    ASSERT_EQ(m_spool->First()->name.substr(0, 13), uploading.name.substr(0, 13));

    ASSERT_FALSE(m_spool->Remove(uploading));
    ASSERT_FALSE(m_spool->Refuse(uploading));

    EXPECT_EQ(Names(), (Texts{"b_2"}));
}

TEST_F(Spools, HoldNothingOfAReportThatTheDiskHasNoRoomFor) {
    MakeReport();
    WriteFile(HostOf(kName) + "/core", std::string(20000, 'x'));
    {
        const FullDisk full(10000);
        EXPECT_EQ(Take().problem, Problem::Unwritable);
    }
    EXPECT_EQ(Names(), Texts());
    EXPECT_TRUE(fs::is_empty(m_path + "/.incoming"));
    EXPECT_FALSE(WasTaken(*m_spool, kName));
    ASSERT_FALSE(Take());
    EXPECT_TRUE(m_isNew);
}

TEST_F(Spools, BelongToOneCollectorAtATime) {
    Spool other({}, [](const std::string& /*line*/) {});
    EXPECT_EQ(other.Open(m_path).problem, Problem::Busy);
}

TEST_F(Spools, BeginAnewWithDamagedCounts) {
    TakeWithBody("a_1", 0);
    WriteFile(m_path + "/counts.json", "{\"taken\" : \"many\", \"refused\" : 3");
    Restart();
    EXPECT_EQ(m_spool->Counts().taken, 0);
    WriteFile(m_path + "/counts.json", "{\"taken\" : \"many\", \"refused\" : 3}");
    Restart();
    EXPECT_EQ(m_spool->Counts().taken, 0);
    EXPECT_EQ(m_spool->Counts().refused, 3);
    WriteFile(m_path + "/counts.json", std::string(100000, '['));
    Restart();
    EXPECT_EQ(m_spool->Counts().refused, 0);
    EXPECT_EQ(Names(), (Texts{"a_1"}));
}

}  // namespace
