#include <gmock/gmock.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "cv_fixture.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "waiting.h"

namespace {

namespace fs = std::filesystem;
using cv::TSCallItemHelper;

constexpr const char* kSource = ZOL_PATH_TRACE_DUMP;
constexpr const char* kSourceFile = ZOL_PATH_TRACE_DUMP "trace.json";
constexpr const char* kStickRoot = "/media/usb";
constexpr const char* kStick = "/media/usb/dumpCV/";
constexpr const char* kStickFile = "/media/usb/dumpCV/trace.json";

void Work(std::string_view text) {
    CV_TRACE_SCOPE(scope);
    TSCallItemHelper::StoreText(scope, text);
    TSCallItemHelper::StoreFixed(scope, std::int32_t{-3});
    TSCallItemHelper::StoreFixed(scope, std::uint64_t{18446744073709551615U});
    fakes::clock::Advance(std::chrono::microseconds(40));
}

class Dump : public CvFixture {
protected:
    Dump() {
        chmod((fakes::Root() + "/tmp").c_str(), 01777);
        fakes::MakeDeviceFolder(kStickRoot);
        Handler().SetActive(true);
    }

    static bool Save(int withTraps = 1, int clear = 1) {
        return cv::api::GetControl()->SaveDump(kSource, kStick, withTraps, clear);
    }
    static Json::Value Parse() {
        Json::CharReaderBuilder builder;
        builder["strictRoot"] = true;
        builder["allowComments"] = false;
        builder["failIfExtra"] = true;
        std::istringstream text(fakes::ReadDeviceFile(kStickFile));
        Json::Value document;
        std::string errors;
        EXPECT_TRUE(Json::parseFromStream(builder, text, &document, &errors)) << errors;
        return document;
    }
    /// The entries of one phase.
    static std::vector<Json::Value> Entries(const std::string& phase) {
        std::vector<Json::Value> found;
        const Json::Value events = Parse()["traceEvents"];
        std::copy_if(events.begin(), events.end(), std::back_inserter(found),
                     [&](const Json::Value& entry) { return entry["ph"] == phase; });
        return found;
    }
    static std::string Host(const std::string& path) { return fakes::Root() + path; }
    /// A dump of "needle", which a trap matches.
    static void MatchATrap() {
        LoadTraps("found cv_dump_test:Work 0 text == needle\n");
        Work("needle");
    }
    static bool SaysThatItCannot() {
        return fakes::dlog::Has(std::string("the trace dump cannot be saved in ") + kStick);
    }
};

TEST_F(Dump, IsTheSameFileInBothFolders) {
    Work("text");

    EXPECT_TRUE(Save());

    EXPECT_FALSE(fakes::ReadDeviceFile(kSourceFile).empty());
    EXPECT_EQ(fakes::ReadDeviceFile(kSourceFile), fakes::ReadDeviceFile(kStickFile));
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(Dump, AScopeIsACompleteEventWithItsItemsAsArguments) {
    Work("text");
    ASSERT_TRUE(Save());

    const std::vector<Json::Value> events = Entries("X");
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0]["name"], "Work");
    EXPECT_EQ(events[0]["dur"].asUInt64(), 40U);
    EXPECT_TRUE(events[0]["ts"].isUInt64());
    EXPECT_EQ(events[0]["pid"], getpid());
    EXPECT_TRUE(events[0]["tid"].isInt());
    EXPECT_EQ(events[0]["args"]["item0"], "text");
    EXPECT_EQ(events[0]["args"]["item1"], -3);
    EXPECT_EQ(events[0]["args"]["item2"].asUInt64(), 18446744073709551615U);
    EXPECT_THAT(events[0]["args"]["file"].asString(), testing::EndsWith("cv_dump_test.cpp"));
}

TEST_F(Dump, TextThatIsNoJsonAndBytesThatAreNoTextDoNotSpoilTheFile) {
    const std::string text = std::string("\"\\</script>\n\x01 \xc3\xa9") + '\0' + "end";
    Work(text);
    Work("\xff\xfe broken \xc3");
    Work(std::string(400, '\xe2'));
    ASSERT_TRUE(Save());

    const std::vector<Json::Value> events = Entries("X");
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[0]["args"]["item0"].asString(), text);
    EXPECT_THAT(events[1]["args"]["item0"].asString(), testing::HasSubstr(" broken "));
    EXPECT_EQ(events[2]["args"]["item0_cut"], true);
}

TEST_F(Dump, AnEmptyRecordingIsAFileThatOpens) {
    ASSERT_TRUE(Save());

    EXPECT_TRUE(Entries("X").empty());
    ASSERT_EQ(Entries("M").size(), 1U);
    EXPECT_EQ(Entries("M")[0]["args"]["name"], "zol");
}

TEST_F(Dump, TheFileSaysWhatItLacksAndWhenItWasMade) {
    for (std::size_t i = 0; i < cv::TCScopeHandler::CAPACITY + 5; ++i) {
        Work("x");
    }
    fakes::clock::SetWall(1700000123);
    ASSERT_TRUE(Save());

    const Json::Value other = Parse()["otherData"];
    EXPECT_EQ(other["events_overwritten"], 5);
    EXPECT_EQ(other["wall_clock_s"].asInt64(), 1700000123);
}

TEST_F(Dump, MatchedTrapsAreMarksWhenTheyAreAskedFor) {
    MatchATrap();

    ASSERT_TRUE(Save(0, 0));
    EXPECT_TRUE(Entries("i").empty());

    ASSERT_TRUE(Save(1, 0));
    ASSERT_EQ(Entries("i").size(), 1U);
    EXPECT_EQ(Entries("i")[0]["name"], "found");
    EXPECT_EQ(Entries("i")[0]["s"], "t");
    EXPECT_EQ(Entries("i")[0]["args"]["value"], "needle");
    EXPECT_EQ(Entries("i")[0]["args"]["function"], "Work");
}

TEST_F(Dump, TheRecordingIsEmptiedOnlyWhenThatIsAskedForAndBothFilesAreWritten) {
    MatchATrap();

    ASSERT_TRUE(Save(1, 0));
    EXPECT_EQ(Events().size(), 1U);
    EXPECT_EQ(Matches().size(), 1U);

    fs::remove_all(Host("/media"));
    fakes::WriteDeviceFile("/media", "in the way");
    ASSERT_FALSE(Save(1, 1));
    EXPECT_EQ(Events().size(), 1U);

    fs::remove(Host("/media"));
    fakes::MakeDeviceFolder(kStickRoot);
    ASSERT_TRUE(Save(1, 1));
    EXPECT_TRUE(Events().empty());
    EXPECT_TRUE(Matches().empty());
}

TEST_F(Dump, TrapsThatWereNotSavedAreNotEmptied) {
    MatchATrap();

    ASSERT_TRUE(Save(0, 1));

    EXPECT_TRUE(Events().empty());
    EXPECT_EQ(Matches().size(), 1U);
}

TEST_F(Dump, FoldersThatExistAreUsedAndAnEarlierDumpIsReplaced) {
    fakes::WriteDeviceFile(kStickFile, std::string(100000, 'x'));
    fakes::WriteDeviceFile("/media/usb/dumpCV/other", "stays");
    fakes::WriteDeviceFile(kSourceFile, "old");
    Work("new");

    EXPECT_TRUE(Save());

    EXPECT_EQ(Entries("X").size(), 1U);
    EXPECT_EQ(fakes::ReadDeviceFile("/media/usb/dumpCV/other"), "stays");
}

TEST_F(Dump, ADestinationThatIsAnybodysLinkIsRefusedAndLogged) {
    chmod(Host(kStickRoot).c_str(), 0777);
    fakes::MakeDeviceFolder("/etc/target");
    fs::create_directory_symlink(Host("/etc/target"), Host("/media/usb/dumpCV"));

    EXPECT_FALSE(Save());

    EXPECT_TRUE(fs::is_empty(Host("/etc/target")));
    EXPECT_TRUE(fakes::dlog::Has("\"dumpCV\" is a link"));
    EXPECT_TRUE(SaysThatItCannot());
}

TEST_F(Dump, ASourceThatIsAnybodysLinkIsRefusedBeforeAnythingIsWritten) {
    fakes::MakeDeviceFolder("/etc/target");
    fs::create_directory_symlink(Host("/etc/target"), Host("/tmp/zol"));

    EXPECT_FALSE(Save());

    EXPECT_TRUE(fs::is_empty(Host("/etc/target")));
    EXPECT_TRUE(fs::is_empty(Host(kStickRoot)));
}

TEST_F(Dump, AStickThatIsGoneIsNotMadeAnew) {
    fs::remove_all(Host("/media"));
    Work("text");

    EXPECT_FALSE(Save());

    EXPECT_FALSE(fs::exists(Host("/media")));
    EXPECT_TRUE(SaysThatItCannot());
    EXPECT_EQ(Events().size(), 1U);
}

TEST_F(Dump, ADestinationThatCannotBeWrittenIsLoggedAndLeavesNoPartBehind) {
    fakes::MakeDeviceFolder(kStickFile);

    EXPECT_FALSE(Save());

    EXPECT_TRUE(SaysThatItCannot());
    EXPECT_FALSE(fs::exists(Host(kStickFile) + ".new"));
    EXPECT_TRUE(fs::exists(Host(kSourceFile)));
}

TEST_F(Dump, DumpsAreSavedWhileOthersRecordAndSave) {
    OnThreads(3, [](int thread) {
        for (int i = 0; i < (thread == 0 ? 300 : 5); ++i) {
            if (thread == 0) {
                Work("text");
            } else {
                EXPECT_TRUE(Save(1, thread - 1));
            }
        }
    });
    ASSERT_TRUE(Save(1, 1));

    Parse();
    EXPECT_TRUE(Events().empty());
}

TEST_F(Dump, TheControlSwitchesTracing) {
    cv::TCTraceControl* control = cv::api::GetControl();
    ASSERT_NE(control, nullptr);
    EXPECT_EQ(control, cv::api::GetControl());

    control->SetActive(false);
    EXPECT_FALSE(control->IsActive());
    Work("unseen");
    EXPECT_TRUE(Events().empty());
    control->SetActive(true);
    EXPECT_TRUE(control->IsActive());
    EXPECT_EQ(control->Reload(), 0);
    EXPECT_FALSE(control->IsActive());
}

}  // namespace
