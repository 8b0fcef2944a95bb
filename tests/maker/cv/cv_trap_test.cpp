#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>

#include "cv_fixture.h"
#include "fake_dlog.h"

namespace {

namespace fs = std::filesystem;
using cv::EItemKind;
using cv::ETrapOperator;
using cv::TSCallItemHelper;
using cv::TSTrapItem;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kSite = " cv_trap_test:Store ";

template <class Value>
void Store(Value value) {
    CV_TRACE_SCOPE(scope);
    TSCallItemHelper::StoreFixed(scope, value);
}

void Store(const std::string& text) {
    CV_TRACE_SCOPE(scope);
    TSCallItemHelper::StoreText(scope, text);
}

void Store(const char* text) {
    Store(std::string(text));
}

class Trap : public CvFixture {
protected:
    /// Loads one condition on item 0 of Store, named "trap".
    static void Set(const std::string& condition) {
        ASSERT_EQ(LoadTraps("trap" + std::string(kSite) + "0 " + condition + "\n"), 1);
    }
};

TEST_F(Trap, ASignedConditionSeesTheSign) {
    Set("signed < 0");

    Store(std::int32_t{-1});
    EXPECT_THAT(Matches(), ElementsAre("trap"));

    Store(std::int32_t{0});
    Store(std::uint32_t{4294967295});
    EXPECT_EQ(Matches().size(), 1U);
}

TEST_F(Trap, AnUnsignedConditionSeesTheBytesOfTheNumbersOwnSize) {
    Set("unsigned == 4294967295");

    Store(std::int32_t{-1});
    Store(std::uint32_t{4294967295});
    EXPECT_EQ(Matches().size(), 2U);

    Store(std::int64_t{-1});
    EXPECT_EQ(Matches().size(), 2U);
}

TEST_F(Trap, ATextConditionSeesTheDecimalFormOfANumber) {
    Set("text == -1");

    Store(std::int32_t{-1});
    Store(std::int32_t{1});
    Store("-1");

    EXPECT_EQ(Matches().size(), 2U);
}

TEST_F(Trap, ATextIsNeverANumber) {
    Set("signed == 5");

    Store("5");

    EXPECT_THAT(Matches(), IsEmpty());
}

TEST_F(Trap, TheLargestNumbersAreCompared) {
    Set("unsigned >= 18446744073709551615");
    Store(std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(Matches().size(), 1U);

    Set("signed <= -9223372036854775808");
    Store(std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(Matches().size(), 2U);

    Set("signed <= 100");  // beyond the signed range there is no signed form
    Store(std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(Matches().size(), 2U);
}

TEST_F(Trap, EveryOperatorHoldsOnItsSideOfTheBound) {
    struct Row {
        const char* word;
        bool below, at, above;
    };
    for (const Row& row :
         {Row{"==", false, true, false}, Row{"!=", true, false, true}, Row{"<", true, false, false},
          Row{"<=", true, true, false}, Row{">", false, false, true}, Row{">=", false, true, true}}) {
        for (const char* kind : {"signed ", "unsigned "}) {
            Set(std::string(kind) + row.word + " 10");
            int expected = 0;
            for (const auto& [value, holds] :
                 {std::pair{9, row.below}, std::pair{10, row.at}, std::pair{11, row.above}}) {
                cv::TCTrapPattern::Instance().Clear();
                Store(value);
                expected = holds ? 1 : 0;
                EXPECT_EQ(Matches().size(), static_cast<std::size_t>(expected))
                    << kind << row.word << " " << value;
            }
        }
    }
}

TEST_F(Trap, TextsAreComparedWholeByTheirBeginningOrAnywhere) {
    struct Row {
        const char* condition;
        const char* matching;
        const char* other;
    };
    for (const Row& row :
         {Row{"== Home screen", "Home screen", "Home screen "}, Row{"!= Home", "home", "Home"},
          Row{"begins Ho", "Home", "aHome"}, Row{"contains me", "Home", "Hom"}, Row{"== \"\"", "", " "},
          Row{"== \" x \"", " x ", "x"}}) {
        Set(std::string("text ") + row.condition);
        cv::TCTrapPattern::Instance().Clear();
        Store(std::string(row.matching));
        EXPECT_EQ(Matches().size(), 1U) << row.condition;
        Store(std::string(row.other));
        EXPECT_EQ(Matches().size(), 1U) << row.condition;
    }
}

TEST_F(Trap, AConditionSeesTheWholeTextAlsoWhereTheRecordingIsCut) {
    Set("text contains needle");

    Store(std::string(1000, 'x') + "needle");

    EXPECT_THAT(Matches(), ElementsAre("trap"));
}

TEST_F(Trap, AConditionIsOnOneItemOfOneCallSite) {
    LoadTraps(
        "first cv_trap_test:TestBody 0 signed > 0\n"
        "third cv_trap_test:TestBody 2 signed > 0\n"
        "other cv_trap_test:Elsewhere 0 signed > 0\n"
        "file scope_test:TestBody 0 signed > 0\n");
    {
        CV_TRACE_SCOPE(scope);
        TSCallItemHelper::StoreFixed(scope, 0);
        TSCallItemHelper::StoreFixed(scope, 1);
        TSCallItemHelper::StoreFixed(scope, 1);
    }

    EXPECT_THAT(Matches(), ElementsAre("third"));
}

TEST_F(Trap, SeveralConditionsOnOneItemAreAllEvaluated) {
    LoadTraps(std::string("one") + kSite + "0 signed > 0\n" + "two" + kSite + "0 unsigned > 1\n" + "three" +
              kSite + "0 text begins 2\n");

    Store(std::int32_t{2});

    EXPECT_THAT(Matches(), ElementsAre("one", "two", "three"));
}

TEST_F(Trap, AMatchSaysWhereWhenAndWhat) {
    Set("signed > 0");

    Store(std::int32_t{7});

    const std::vector<cv::TSTrapMatch> matches = cv::TCTrapPattern::Instance().Items();
    ASSERT_EQ(matches.size(), 1U);
    EXPECT_STREQ(matches[0].value, "7");
    EXPECT_STREQ(matches[0].site->function, "Store");
    EXPECT_EQ(matches[0].itemIndex, 0U);
    EXPECT_EQ(matches[0].thread, Events().at(0).thread);
    EXPECT_GE(matches[0].timeNs, Events().at(0).startNs);
}

TEST_F(Trap, ALongValueIsCutInTheMatch) {
    Set("text contains x");

    Store(std::string(100, 'x'));

    EXPECT_EQ(cv::TCTrapPattern::Instance().Items().at(0).value, std::string(63, 'x'));
}

TEST_F(Trap, AFullQueueLosesItsOldestMatchesAndCountsThem) {
    Set("signed >= 0");
    constexpr int kMax = static_cast<int>(cv::TCTrapPattern::MAX_MATCHES);

    for (int i = 0; i < kMax + 3; ++i) {
        Store(i);
    }

    const std::vector<cv::TSTrapMatch> matches = cv::TCTrapPattern::Instance().Items();
    ASSERT_EQ(matches.size(), cv::TCTrapPattern::MAX_MATCHES);
    EXPECT_STREQ(matches.front().value, "3");
    EXPECT_EQ(cv::TCTrapPattern::Instance().Dropped(), 3U);
}

TEST_F(Trap, TheConditionsOfACallSiteCanBeAskedFor) {
    LoadTraps("loud ZOLCVLogger:LogVolumeLevel 2 unsigned > 80\n");

    const auto condition = Handler().ConditionsOf({"/src/zol/ZOLCVLogger.cpp", "LogVolumeLevel", 1});
    ASSERT_NE(condition, nullptr);
    EXPECT_EQ(Handler().ConditionsOf({"ZOLCVLogger.cpp", "Other", 1}), nullptr);
    EXPECT_TRUE(condition->ItemExists(2));
    EXPECT_FALSE(condition->ItemExists(0));
    EXPECT_FALSE(condition->ItemExists(1000));
    EXPECT_TRUE(condition->GetItemsByIndex(1000).empty());
    ASSERT_EQ(condition->GetItemsByIndex(2).size(), 1U);
    const TSTrapItem item = condition->GetItemsByIndex(2)[0];
    EXPECT_EQ(item.name, "loud");
    EXPECT_TRUE(item.EvaluateResult(std::uint64_t{81}));
    EXPECT_FALSE(item.EvaluateResult(std::int64_t{81}));
    EXPECT_FALSE(item.EvaluateResult(std::string_view("81")));
}

TEST_F(Trap, ConditionsInUseOutliveAReload) {
    LoadTraps("old Source:Function 0 text == value\n");
    const auto condition = Handler().ConditionsOf({"Source.cpp", "Function", 1});

    LoadTraps("");

    ASSERT_NE(condition, nullptr);
    EXPECT_EQ(condition->GetItemsByIndex(0).at(0).text, "value");
    EXPECT_EQ(Handler().ConditionsOf({"Source.cpp", "Function", 1}), nullptr);
}

class TrapFile : public Trap {};

TEST_F(TrapFile, CommentsBlankLinesTabsAndCarriageReturnsAreFine) {
    EXPECT_EQ(LoadTraps("# comment\r\n\r\n  \t\n\ta\tS:F\t0\tsigned\t==\t-5\t\r\nb S:F 1 text == last line"),
              2);

    EXPECT_TRUE(fakes::dlog::Lines().empty());
    EXPECT_EQ(Handler().ConditionsOf({"S", "F", 1})->GetItemsByIndex(1).at(0).text, "last line");
}

TEST_F(TrapFile, LinesOfNonsenseAreLoggedWithTheirNumberAndSkipped) {
    const int count = LoadTraps(
        "a\n"                                     // 1
        "a nosite 0 signed > 1\n"                 // 2
        "a S:F eight signed > 1\n"                // 3
        "a S:F 8 signed > 1\n"                    // 4
        "a S:F -1 signed > 1\n"                   // 5
        "a S:F 0 float > 1\n"                     // 6
        "a S:F 0 signed contains 1\n"             // 7
        "a S:F 0 text < x\n"                      // 8
        "a S:F 0 signed > 9223372036854775808\n"  // 9
        "a S:F 0 unsigned > -1\n"                 // 10
        "a S:F 0 signed > 1x\n"                   // 11
        "a S:F 0 signed >\n"                      // 12
        "a S:F 0 text ==\n"                       // 13
        "a S: 0 signed > 1\n"                     // 14
        "good S:F 0 signed > 1\n"                 // 15
        "name-of-more-than-thirty-one-bytes S:F 0 signed > 1\n");

    EXPECT_EQ(count, 1);
    for (int line = 1; line <= 16; ++line) {
        EXPECT_EQ(fakes::dlog::Count(ZOL_PATH_TRAP_CONF ": line " + std::to_string(line) + " skipped: "),
                  line == 15 ? 0 : 1)
            << line;
    }
    EXPECT_EQ(Handler().ConditionsOf({"S.cpp", "F", 1})->GetItemsByIndex(0).at(0).name, "good");
}

TEST_F(TrapFile, AFileOfGarbageDoesNotFloodTheLog) {
    std::string garbage;
    for (int i = 0; i < 20000; ++i) {
        garbage += i % 7 == 0 ? '\n' : static_cast<char>(i * 31 % 256);
    }

    EXPECT_EQ(LoadTraps(garbage + "\ngood S:F 0 signed > 1\n"), 1);

    EXPECT_EQ(fakes::dlog::Lines().size(), 17U);
    EXPECT_TRUE(fakes::dlog::Has("more lines skipped"));
}

TEST_F(TrapFile, ALineThatIsTooLongIsSkippedWhole) {
    EXPECT_EQ(LoadTraps("a S:F 0 text == " + std::string(600, 'x') + "\nb S:F 0 text == y\n"), 1);

    EXPECT_TRUE(fakes::dlog::Has("line 1 skipped: the line is too long"));
}

TEST_F(TrapFile, MoreConditionsThanSixtyFourAreSkipped) {
    std::string text;
    for (int i = 0; i < 70; ++i) {
        text += "a S:F 0 signed == " + std::to_string(i) + "\n";
    }

    EXPECT_EQ(LoadTraps(text), 64);

    EXPECT_TRUE(fakes::dlog::Has("line 65 skipped"));
}

TEST_F(TrapFile, AFileThatCannotBeReadIsLoggedAndLeavesNoConditions) {
    ASSERT_EQ(LoadTraps("a S:F 0 signed > 1\n"), 1);
    const std::string host = fakes::Root() + ZOL_PATH_TRAP_CONF;

    EXPECT_EQ(LoadTraps(std::string(70000, '#')), -1);
    EXPECT_EQ(Handler().ConditionsOf({"S", "F", 1}), nullptr);
    fs::remove(host);
    fs::create_directory(host);
    EXPECT_EQ(Handler().Reload(), -1);
    fs::remove(host);
    fakes::WriteDeviceFile("/etc/elsewhere", "a S:F 0 signed > 1\n");
    fs::create_symlink(fakes::Root() + "/etc/elsewhere", host);
    EXPECT_EQ(Handler().Reload(), -1);
    fs::remove(host);
    ASSERT_EQ(mkfifo(host.c_str(), 0600), 0);
    EXPECT_EQ(Handler().Reload(), -1);

    EXPECT_EQ(fakes::dlog::Count("cannot read " ZOL_PATH_TRAP_CONF), 4);
    EXPECT_FALSE(cv::TCScopeHandler::IsActive());
}

}  // namespace
