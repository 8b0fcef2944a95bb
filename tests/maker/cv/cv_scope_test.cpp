#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <vector>

#include "cv_fixture.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "waiting.h"

namespace {

using cv::EItemKind;
using cv::TSCallItemHelper;
using cv::TSEvent;

void RecordNumber(std::int32_t number) {
    CV_TRACE_SCOPE(scope);
    TSCallItemHelper::StoreFixed(scope, number);
}

void RecordText(std::string_view text) {
    CV_TRACE_SCOPE(scope);
    TSCallItemHelper::StoreText(scope, text);
}

// The first use happens once in a process; suites of this name run before all others.
TEST(TracingAtFirstUseDeathTest, IsOnOnlyWhereTheDebugMarkerExists) {
    for (const std::size_t events : {0U, 1U}) {
        fakes::Reset();
        if (events == 1) {
            fakes::WriteDeviceFile(ZOL_PATH_DEBUG_MARKER, "");
        }
        EXPECT_EXIT(
            {
                RecordNumber(1);
                std::_Exit(cv::TCScopeHandler::Instance().Items().size() == events ? 0 : 1);
            },
            testing::ExitedWithCode(0), "");
    }
}

class Scope : public CvFixture {
protected:
    Scope() { Handler().SetActive(true); }
};

TEST_F(Scope, RecordsNothingWhileTracingIsInactive) {
    Handler().SetActive(false);
    CV_TRACE_SCOPE(scope);

    EXPECT_FALSE(scope.IsActive());
    EXPECT_FALSE(TSCallItemHelper::StoreFixed(scope, 1));
    EXPECT_FALSE(TSCallItemHelper::StoreText(scope, "text"));

    EXPECT_TRUE(Events().empty());
}

TEST_F(Scope, RecordsItsPlaceThreadStartAndDuration) {
    const std::uint64_t line = __LINE__ + 2;
    {
        CV_TRACE_SCOPE(scope);
        EXPECT_TRUE(scope.IsActive());
        EXPECT_TRUE(Events().empty());
        fakes::clock::Advance(std::chrono::microseconds(250));
    }

    ASSERT_EQ(Events().size(), 1U);
    const TSEvent event = Events()[0];
    EXPECT_EQ(event.site->line, line);
    EXPECT_STREQ(event.site->function, "TestBody");
    EXPECT_THAT(event.site->file, testing::EndsWith("cv_scope_test.cpp"));
    EXPECT_EQ(event.thread, syscall(SYS_gettid));
    EXPECT_EQ(event.durationNs, 250000U);
    EXPECT_EQ(event.itemCount, 0);
}

TEST_F(Scope, KeepsNumbersWithTheirSizeAndSign) {
    {
        CV_TRACE_SCOPE(scope);
        TSCallItemHelper::StoreFixed(scope, std::int8_t{-1});
        TSCallItemHelper::StoreFixed(scope, std::uint16_t{65535});
        TSCallItemHelper::StoreFixed(scope, std::int32_t{-5});
        TSCallItemHelper::StoreFixed(scope, std::numeric_limits<std::uint64_t>::max());
    }

    const TSEvent event = Events().at(0);
    ASSERT_EQ(event.itemCount, 4);
    EXPECT_EQ(event.items[0].kind, EItemKind::SIGNED);
    EXPECT_EQ(event.items[0].size, 1U);
    EXPECT_EQ(static_cast<std::int64_t>(event.items[0].bits), -1);
    EXPECT_EQ(event.items[1].kind, EItemKind::UNSIGNED);
    EXPECT_EQ(event.items[1].bits, 65535U);
    EXPECT_EQ(event.items[2].size, 4U);
    EXPECT_EQ(static_cast<std::int64_t>(event.items[2].bits), -5);
    EXPECT_EQ(event.items[3].bits, std::numeric_limits<std::uint64_t>::max());
}

TEST_F(Scope, KeepsTextsByteForByteAndCutsWhatIsTooLong) {
    const std::string_view text("a\0b", 3);
    {
        CV_TRACE_SCOPE(scope);
        EXPECT_TRUE(TSCallItemHelper::StoreText(scope, text));
        EXPECT_TRUE(TSCallItemHelper::StoreText(scope, ""));
        EXPECT_TRUE(TSCallItemHelper::StoreText(scope, std::string(1000, 'x')));
        EXPECT_TRUE(TSCallItemHelper::StoreText(scope, "no room"));
    }

    const TSEvent event = Events().at(0);
    ASSERT_EQ(event.itemCount, 4);
    EXPECT_EQ(event.TextOf(event.items[0]), text);
    EXPECT_FALSE(event.items[1].cut);
    EXPECT_EQ(event.TextOf(event.items[2]), std::string(TSEvent::MAX_TEXT - 3, 'x'));
    EXPECT_TRUE(event.items[2].cut);
    EXPECT_EQ(event.TextOf(event.items[3]), "");
    EXPECT_TRUE(event.items[3].cut);
}

TEST_F(Scope, TakesEightItemsAndNoMore) {
    {
        CV_TRACE_SCOPE(scope);
        for (int i = 0; i < 8; ++i) {
            EXPECT_TRUE(TSCallItemHelper::StoreFixed(scope, i));
        }
        EXPECT_FALSE(TSCallItemHelper::StoreFixed(scope, 8));
        EXPECT_FALSE(TSCallItemHelper::StoreText(scope, "more"));
    }

    EXPECT_EQ(Events().at(0).itemCount, 8);
}

TEST_F(Scope, AnInnerScopeIsRecordedBeforeTheOuterOne) {
    {
        CV_TRACE_SCOPE(outer);
        RecordText("inner");
        TSCallItemHelper::StoreText(outer, "outer");
    }

    ASSERT_EQ(Events().size(), 2U);
    EXPECT_STREQ(Events()[0].site->function, "RecordText");
    EXPECT_STREQ(Events()[1].site->function, "TestBody");
}

TEST_F(Scope, WhatWasRecordedOrOpenWhenTracingWasSwitchedOffIsKept) {
    RecordNumber(1);
    {
        CV_TRACE_SCOPE(scope);
        Handler().SetActive(false);
        EXPECT_TRUE(TSCallItemHelper::StoreFixed(scope, 1));
    }
    RecordNumber(2);

    EXPECT_EQ(Events().size(), 2U);
}

TEST_F(Scope, AFullRecordingLosesItsOldestEventsAndCountsThem) {
    constexpr auto kMax = static_cast<std::int32_t>(cv::TCScopeHandler::CAPACITY);
    for (std::int32_t i = 0; i < kMax; ++i) {
        RecordNumber(i);
    }
    EXPECT_EQ(Handler().Lost(), 0U);

    RecordNumber(kMax);
    RecordNumber(kMax + 1);

    EXPECT_EQ(Handler().Lost(), 2U);
    const std::vector<TSEvent> events = Events();
    ASSERT_EQ(events.size(), static_cast<std::size_t>(kMax));
    EXPECT_EQ(events.front().items[0].bits, 2U);
    EXPECT_EQ(events.back().items[0].bits, static_cast<std::uint64_t>(kMax + 1));
}

TEST_F(Scope, OnlyWhatWasSeenIsDiscarded) {
    RecordNumber(1);
    std::uint64_t end = 0;
    ASSERT_EQ(Handler().Items(&end).size(), 1U);
    RecordNumber(2);

    Handler().DiscardBefore(end);

    ASSERT_EQ(Events().size(), 1U);
    EXPECT_EQ(Events()[0].items[0].bits, 2U);
}

TEST_F(Scope, ReloadDecidesByTheMarkersOfTheDevice) {
    EXPECT_EQ(Handler().Reload(), 0);
    EXPECT_FALSE(cv::TCScopeHandler::IsActive());

    EXPECT_EQ(LoadTraps("# nothing but a comment\n"), 0);
    EXPECT_FALSE(cv::TCScopeHandler::IsActive());

    EXPECT_EQ(LoadTraps("loud Source:Function 0 signed > 80\n"), 1);
    EXPECT_TRUE(cv::TCScopeHandler::IsActive());

    fakes::MakeDeviceFolder(ZOL_PATH_DEBUG_MARKER);
    EXPECT_EQ(LoadTraps(""), 0);
    EXPECT_TRUE(cv::TCScopeHandler::IsActive()) << "whatever the marker is";
}

TEST_F(Scope, SeveralThreadsRecordWhileTheRecordingIsSwitchedReloadedAndRead) {
    OnThreads(4, [](int thread) {
        for (int i = 0; i < 300; ++i) {
            RecordNumber(i);
            RecordText("text");
            if (thread == 0 && i % 15 == 0) {
                LoadTraps("odd cv_scope_test:RecordNumber 0 signed > 100\n");
                static_cast<void>(Handler().Items());  // only that it may be asked
                Handler().SetActive(i % 2 == 0);
            }
        }
    });
    Handler().SetActive(true);
    RecordNumber(-1);

    const std::vector<TSEvent> events = Events();
    EXPECT_LE(events.size(), cv::TCScopeHandler::CAPACITY);
    EXPECT_EQ(static_cast<std::int64_t>(events.back().items[0].bits), -1);
}

}  // namespace
