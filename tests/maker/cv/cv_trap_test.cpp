#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "cv_fixture.h"
#include "fake_dlog.h"

namespace {

namespace fs = std::filesystem;
using cv::EItemKind;
using cv::ETrapOperator;
using cv::TSCallItemHelper;
using cv::TSTrapItem;
using testing::ElementsAre;

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
    /// Whether the condition matches the value, and does so once.
    template <class Value>
    static bool Holds(const std::string& condition, const Value& value) {
        Set(condition);
        cv::TCTrapPattern::Instance().Clear();
        Store(value);
        return Matches() == std::vector<std::string>{"trap"};
    }
};

TEST_F(Trap, ASignedConditionSeesTheSign) {
    EXPECT_TRUE(Holds("signed < 0", std::int32_t{-1}));
    EXPECT_FALSE(Holds("signed < 0", std::int32_t{0}));
    EXPECT_FALSE(Holds("signed < 0", std::uint32_t{4294967295}));
}

TEST_F(Trap, AnUnsignedConditionSeesTheBytesOfTheNumbersOwnSize) {
    EXPECT_TRUE(Holds("unsigned == 4294967295", std::int32_t{-1}));
    EXPECT_TRUE(Holds("unsigned == 4294967295", std::uint32_t{4294967295}));
    EXPECT_FALSE(Holds("unsigned == 4294967295", std::int64_t{-1}));
}

TEST_F(Trap, ATextConditionSeesTheDecimalFormOfANumberAndATextIsNeverANumber) {
    EXPECT_TRUE(Holds("text == -1", std::int32_t{-1}));
    EXPECT_FALSE(Holds("text == -1", std::int32_t{1}));
    EXPECT_TRUE(Holds("text == -1", "-1"));
    EXPECT_FALSE(Holds("signed == 5", "5"));
}

TEST_F(Trap, TheLargestNumbersAreCompared) {
    EXPECT_TRUE(Holds("unsigned >= 18446744073709551615", std::numeric_limits<std::uint64_t>::max()));
    EXPECT_TRUE(Holds("signed <= -9223372036854775808", std::numeric_limits<std::int64_t>::min()));
    // Beyond the signed range there is no signed form.
    EXPECT_FALSE(Holds("signed <= 100", std::numeric_limits<std::uint64_t>::max()));
}

TEST_F(Trap, EveryOperatorHoldsOnItsSideOfTheBound) {
    struct Row {
        const char* word;
        bool below, at, above;
    };
    for (const Row& row :
         {Row{"==", false, true, false}, Row{"!=", true, false, true}, Row{"<", true, false, false},
          Row{"<=", true, true, false}, Row{">", false, false, true}, Row{">=", false, true, true}}) {
        for (const std::string kind : {"signed ", "unsigned "}) {
            EXPECT_EQ(Holds(kind + row.word + " 10", 9), row.below) << kind << row.word;
            EXPECT_EQ(Holds(kind + row.word + " 10", 10), row.at) << kind << row.word;
            EXPECT_EQ(Holds(kind + row.word + " 10", 11), row.above) << kind << row.word;
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
         {Row{"text == Home screen", "Home screen", "Home screen "}, Row{"text != Home", "home", "Home"},
          Row{"text begins Ho", "Home", "aHome"}, Row{"text contains me", "Home", "Hom"},
          Row{"text == \"\"", "", " "}, Row{"text == \" x \"", " x ", "x"}}) {
        EXPECT_TRUE(Holds(row.condition, row.matching)) << row.condition;
        EXPECT_FALSE(Holds(row.condition, row.other)) << row.condition;
    }
}

TEST_F(Trap, AConditionSeesTheWholeTextAlsoWhereTheRecordingIsCut) {
    EXPECT_TRUE(Holds("text contains needle", std::string(1000, 'x') + "needle"));
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

TEST_F(Trap, AMatchSaysWhereWhenAndWhatOfTheValueFits) {
    ASSERT_TRUE(Holds("text contains x", std::string(100, 'x')));

    const cv::TSTrapMatch match = cv::TCTrapPattern::Instance().Items().at(0);
    EXPECT_EQ(match.value, std::string(63, 'x'));
    EXPECT_STREQ(match.site->function, "Store");
    EXPECT_EQ(match.itemIndex, 0U);
    EXPECT_EQ(match.thread, Events().at(0).thread);
    EXPECT_GE(match.timeNs, Events().at(0).startNs);
}

TEST_F(Trap, AFullQueueLosesItsOldestMatchesAndCountsThem) {
    Set("signed >= 0");
    constexpr int kMax = static_cast<int>(cv::TCTrapPattern::CAPACITY);

    for (int i = 0; i < kMax + 3; ++i) {
        Store(i);
    }

    const std::vector<cv::TSTrapMatch> matches = cv::TCTrapPattern::Instance().Items();
    ASSERT_EQ(matches.size(), cv::TCTrapPattern::CAPACITY);
    EXPECT_STREQ(matches.front().value, "3");
    EXPECT_EQ(cv::TCTrapPattern::Instance().Lost(), 3U);
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
    const std::vector<std::string> nonsense = {"a",
                                               "a nosite 0 signed > 1",
                                               "a S:F eight signed > 1",
                                               "a S:F 8 signed > 1",
                                               "a S:F -1 signed > 1",
                                               "a S:F 0 float > 1",
                                               "a S:F 0 signed contains 1",
                                               "a S:F 0 text < x",
                                               "a S:F 0 signed > 9223372036854775808",
                                               "a S:F 0 unsigned > -1",
                                               "a S:F 0 signed > 1x",
                                               "a S:F 0 signed >",
                                               "a S:F 0 text ==",
                                               "a S: 0 signed > 1",
                                               "name-of-more-than-thirty-one-bytes S:F 0 signed > 1"};
    std::string file;
    for (const std::string& line : nonsense) {
        file += line + "\n";
    }

    EXPECT_EQ(LoadTraps(file + "good S:F 0 signed > 1\n"), 1);

    EXPECT_EQ(Handler().ConditionsOf({"S.cpp", "F", 1})->GetItemsByIndex(0).at(0).name, "good");
    for (std::size_t line = 1; line <= nonsense.size(); ++line) {
        EXPECT_TRUE(fakes::dlog::Has(ZOL_PATH_TRAP_CONF ": line " + std::to_string(line) + " skipped: "))
            << nonsense[line - 1];
    }
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

TEST_F(TrapFile, ALineThatIsTooLongAndConditionsBeyondSixtyFourAreSkipped) {
    std::string text = "a S:F 0 text == " + std::string(600, 'x') + "\n";
    for (int i = 0; i < 70; ++i) {
        text += "a S:F 0 signed == " + std::to_string(i) + "\n";
    }

    EXPECT_EQ(LoadTraps(text), 64);

    EXPECT_TRUE(fakes::dlog::Has("line 1 skipped: the line is too long"));
    EXPECT_TRUE(fakes::dlog::Has("line 66 skipped"));
}

TEST_F(TrapFile, AFileThatCannotBeReadIsLoggedAndLeavesNoConditions) {
    ASSERT_EQ(LoadTraps("a S:F 0 signed > 1\n"), 1);
    const std::string host = fakes::Root() + ZOL_PATH_TRAP_CONF;

    EXPECT_EQ(LoadTraps(std::string(70000, '#')), -1);
    EXPECT_EQ(Handler().ConditionsOf({"S", "F", 1}), nullptr);
    fakes::WriteDeviceFile("/etc/elsewhere", "a S:F 0 signed > 1\n");
    const std::function<void()> obstacles[] = {
        [&] { fs::create_directory(host); },
        [&] { fs::create_symlink(fakes::Root() + "/etc/elsewhere", host); },
        [&] { ASSERT_EQ(mkfifo(host.c_str(), 0600), 0); }};
    for (const auto& putInTheWay : obstacles) {
        fs::remove(host);
        putInTheWay();
        EXPECT_EQ(Handler().Reload(), -1);
    }

    EXPECT_EQ(fakes::dlog::Count("cannot read " ZOL_PATH_TRAP_CONF), 4);
    EXPECT_FALSE(cv::TCScopeHandler::IsActive());
}

}  // namespace
