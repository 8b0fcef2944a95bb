#include "destination.h"

#include <string>

#include "fake_vconf.h"
#include "full_disk.h"
#include "hand_over.h"
#include "report_fixture.h"

namespace {

using reports::Destination;
using reports::Outcome;
using reports::Problem;
using reports::Taken;

class Destinations : public ReportTest {
protected:
    Destinations() { EXPECT_FALSE(m_destination.Open(m_folder.Path())); }

    Outcome Take(const std::string& name = kName) {
        reports::ReportRoot root;
        const Outcome outcome = root.Open();
        return outcome ? outcome : m_destination.Take(root, name, m_taken);
    }
    /// What the daemon and a collector do together.
    Outcome TakePublished(const std::string& path) {
        fakes::vconf::SetString(reports::kHandOverKey, path);
        return reports::TakePublished(path, [&](const reports::ReportRoot& root, const std::string& name) {
            return m_destination.Take(root, name, m_taken);
        });
    }
    static std::string Key() { return fakes::vconf::GetString(reports::kHandOverKey); }
    std::string Here(const std::string& name = kName) const { return m_folder.Path() + "/" + name; }

    const TemporaryFolder m_folder;
    Destination m_destination;
    Taken m_taken;
};

TEST_F(Destinations, GetACopyOfAReportThatMoreMayComeInto) {
    MakeReport();
    WriteFile(HostOf(kName) + "/below/deeper/core", "12345");
    SetAge(kName, 3);

    ASSERT_FALSE(Take());

    EXPECT_EQ(m_taken.path, Here());
    EXPECT_TRUE(m_taken.isNew);
    EXPECT_FALSE(m_taken.isMoved);
    EXPECT_EQ(ReadFile(Here() + "/header.json"), HeaderText("1700000000"));
    EXPECT_EQ(ReadFile(Here() + "/below/deeper/core"), "12345");
    EXPECT_TRUE(fs::exists(HostOf(kName) + "/below/deeper/core"));
}

TEST_F(Destinations, GetAReportItselfThatNothingMoreComesInto) {
    MakeReport();

    ASSERT_FALSE(Take());

    EXPECT_TRUE(m_taken.isMoved);
    EXPECT_EQ(ReadFile(Here() + "/header.json"), HeaderText("1700000000"));
    EXPECT_FALSE(fs::exists(HostOf(kName)));
}

TEST_F(Destinations, KnowWhatTheyHave) {
    MakeReport();
    SetAge(kName, 3);
    ASSERT_FALSE(Take());
    ASSERT_FALSE(Take());
    EXPECT_FALSE(m_taken.isNew);
    EXPECT_EQ(m_taken.path, Here());

    WriteFile(HostOf(kName) + "/core", "x");
    SetAge(kName, 3);
    ASSERT_FALSE(Take());
    EXPECT_TRUE(m_taken.isNew);
    EXPECT_EQ(m_taken.path.substr(0, Here().size() + 1), Here() + ".");
    EXPECT_EQ(ReadFile(m_taken.path + "/core"), "x");
    EXPECT_FALSE(fs::exists(Here() + "/core"));
    ASSERT_FALSE(Take());
    EXPECT_FALSE(m_taken.isNew);
}

TEST_F(Destinations, HoldNothingOfAReportThatDoesNotFit) {
    MakeReport();
    WriteFile(HostOf(kName) + "/core", std::string(20000, 'x'));
    SetAge(kName, 3);
    {
        const FullDisk full(10000);
        EXPECT_EQ(Take().problem, Problem::Unwritable);
    }
    EXPECT_FALSE(fs::exists(Here()));
    EXPECT_TRUE(fs::is_empty(Here(".incoming")));
    EXPECT_FALSE(Take());
    EXPECT_EQ(ReadFile(Here() + "/core").size(), 20000U);
}

TEST_F(Destinations, FollowNoLinkInAReport) {
    MakeReport();
    WriteFile(Host("/tmp/secret"), "secret");
    fs::create_symlink(Host("/tmp/secret"), HostOf(kName) + "/link");
    SetAge(kName, 3);

    ASSERT_FALSE(Take());

    EXPECT_FALSE(fs::exists(Here() + "/link"));
}

TEST_F(Destinations, BelongToOneAtATime) {
    Destination other;
    const Outcome outcome = other.Open(m_folder.Path());
    EXPECT_EQ(outcome.problem, Problem::Busy);
    EXPECT_EQ(outcome.text, "another collector works on " + m_folder.Path());
    EXPECT_EQ(Destination().Open("/nowhere/at/all").problem, Problem::Unwritable);
}

TEST_F(Destinations, LoseWhatWasNotFinished) {
    const TemporaryFolder folder;
    WriteFile(folder.Path() + "/.incoming/x_1/header.json", "{");
    {
        Destination destination;
        ASSERT_FALSE(destination.Open(folder.Path()));
        EXPECT_TRUE(fs::is_empty(folder.Path() + "/.incoming"));
    }
    EXPECT_TRUE(fs::is_empty(folder.Path()));
}

TEST_F(Destinations, HaveThePublishedReportBeforeTheKeyIsEmptied) {
    MakeReport();
    EXPECT_FALSE(TakePublished(reports::PathOf(kName)));
    EXPECT_EQ(Key(), "");
    EXPECT_TRUE(fs::exists(Here() + "/header.json"));
}

TEST_F(Destinations, DoNotHoldUpOthersForWhatIsNoReport) {
    EXPECT_EQ(TakePublished(reports::PathOf("gone_1")).problem, Problem::Missing);
    EXPECT_EQ(Key(), "");
    EXPECT_EQ(TakePublished("/etc").problem, Problem::Refused);
    EXPECT_EQ(Key(), "");
}

TEST_F(Destinations, LeaveTheKeyForAnotherAttemptWhenTheyAreFull) {
    MakeReport();
    SetAge(kName, 3);
    {
        const FullDisk full(10);
        EXPECT_EQ(TakePublished(reports::PathOf(kName)).problem, Problem::Unwritable);
    }
    EXPECT_EQ(Key(), reports::PathOf(kName));
}

TEST_F(Destinations, DoNotEmptyTheKeyOfAnotherReport) {
    MakeReport();
    fakes::vconf::SetString(reports::kHandOverKey, "/tmp/zol/later_1");
    EXPECT_TRUE(reports::EmptyKey(reports::PathOf(kName)));
    EXPECT_EQ(Key(), "/tmp/zol/later_1");
}

TEST_F(Destinations, SayWhenTheKeyCannotBeEmptied) {
    MakeReport();
    fakes::vconf::Fail(reports::kHandOverKey, fakes::vconf::FAIL_SET);
    EXPECT_EQ(TakePublished(reports::PathOf(kName)).problem, Problem::NoStore);
    EXPECT_TRUE(fs::exists(Here() + "/header.json"));
}

}  // namespace
