#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "dlog.h"
#include "fake_dlog.h"
#include "policy_manager_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

std::string KeyItem(const std::string& condition) {
    return "<zols key=\"db/x\" condition=\"" + condition + "\" type=\"INT\" intvalue=\"1\"/>";
}

/// What the manager says of each item while it applies a policy.
class PolicyItemLog : public PolicyManagerTest {
protected:
    /// The lines of one check about one item, in a policy that holds nothing else to be checked by it.
    static std::vector<fakes::LogLine> Of(const std::string& function) {
        std::vector<fakes::LogLine> lines;
        for (const fakes::LogLine& line : fakes::dlog::Lines()) {
            if (line.text.rfind("ZOLPolicyManager: " + function + "(", 0) == 0) {
                lines.push_back(line);
            }
        }
        return lines;
    }
    static std::vector<std::string> Texts(const std::vector<fakes::LogLine>& lines) {
        std::vector<std::string> texts;
        for (const fakes::LogLine& line : lines) {
            texts.push_back(line.text.substr(line.text.find("> ") + 2));
        }
        return texts;
    }
    /// A refused monitor: one line of its check, then the removal.
    void ExpectRefused(const std::string& attributes, const std::string& reason) {
        fakes::dlog::Clear();
        StartWith(Document("<monitor " + attributes + "/>"));
        const auto lines = Of("m_CheckThisMonitorPolicy");
        ASSERT_THAT(Texts(lines), ElementsAre(reason));
        EXPECT_EQ(lines.front().priority, DLOG_PRIORITY_ERROR);
        EXPECT_THAT(Texts(Of("m_RemoveInvalidMonitorPolicy")), ElementsAre("removed"));
        m_places.insert(lines.front().text.substr(0, lines.front().text.find(" > ")));
    }

    std::set<std::string> m_places;  ///< of the reasons, lines included
};

TEST_F(PolicyItemLog, AnAcceptedKeyIsGreetedByItsCheckAndARefusedOneRemovedWithoutAReason) {
    StartWith(Document(KeyItem("IS")));
    EXPECT_THAT(Texts(Of("m_CheckThisVconfPolicy")), ElementsAre("bye"));
    EXPECT_THAT(Of("m_RemoveInvalidVconfPolicy"), IsEmpty());
    ExpectErrors({"> bye"});

    fakes::dlog::Clear();
    StartWith(Document(KeyItem("SOMEHOW")));
    EXPECT_THAT(Of("m_CheckThisVconfPolicy"), IsEmpty());
    EXPECT_THAT(Texts(Of("m_RemoveInvalidVconfPolicy")), ElementsAre("removed"));
    ExpectErrors({"> removed"});
}

TEST_F(PolicyItemLog, ARefusedMonitorIsRemovedWithItsReason) {
    ExpectRefused("kind=\"1\" method=\"21\"", "APP_INSTALL, method is not valid [21]");
    ExpectRefused("kind=\"1\" method=\"11\"", "APP_INSTALL, id is null or empty.");
    ExpectRefused("kind=\"1\" method=\"11\" id=\"org.app\"", "APP_INSTALL, name is null or empty.");
    ExpectRefused("kind=\"2\" method=\"11\"", "APP_LAUNCH, method is not valid [11]");
    ExpectRefused("kind=\"3\" method=\"33\"", "ZOL_BT_PAIR, method is not valid [33]");
    ExpectRefused("kind=\"-7\" method=\"11\"", "MonitoringType is not valid [-7]");
    EXPECT_EQ(m_places.size(), 6U) << "each reason has a line of its own";
    // A launch monitor lacks these in the words of an install.
    ExpectRefused("kind=\"2\" method=\"21\" name=\"App\"", "APP_INSTALL, id is null or empty.");
    ExpectRefused("kind=\"2\" method=\"21\" id=\"org.app\"", "APP_INSTALL, name is null or empty.");
}

TEST_F(PolicyItemLog, AnAcceptedMonitorIsShownBetweenTwoEmptyLines) {
    StartWith(
        Document(R"(<monitor kind="1" method="11" id="org.app" name="App" duration="60" repetition="3"/>)"));

    const auto lines = Of("m_CheckThisMonitorPolicy");
    EXPECT_THAT(Texts(lines), ElementsAre("", "type : 1", "Id : org.app", "Name : App", "method : 11",
                                          "duration : 60", "reptition : 3", ""));
    std::set<std::string> places;
    for (const fakes::LogLine& line : lines) {
        EXPECT_EQ(line.priority, DLOG_PRIORITY_INFO) << line.text;
        places.insert(line.text.substr(0, line.text.find(" > ")));
    }
    EXPECT_EQ(places.size(), lines.size()) << "each has a line number of its own";
}

}  // namespace
