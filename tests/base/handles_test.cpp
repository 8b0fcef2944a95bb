#include "base/handles.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <utility>

#include "base/glib_handles.h"
#include "base/sqlite_handles.h"
#include "base/unique_fd.h"

namespace {

using base::UniqueFd;

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

UniqueFd OpenNull() {
    return UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

TEST(UniqueFdTest, ClosesWhatItOwnsWhenItGoesAndWhenItTakesAnother) {
    int first = -1;
    int second = -1;
    {
        UniqueFd fd = OpenNull();
        first = fd.Get();
        UniqueFd other = OpenNull();
        second = other.Get();
        fd = std::move(other);
        EXPECT_FALSE(IsOpen(first));
        EXPECT_TRUE(IsOpen(second));
        EXPECT_EQ(fd.Get(), second);
    }
    EXPECT_FALSE(IsOpen(second));
}

TEST(UniqueFdTest, HandsItsDescriptorOverOpen) {
    int raw = -1;
    {
        UniqueFd fd = OpenNull();
        raw = fd.Release();
        EXPECT_FALSE(fd);
    }
    EXPECT_TRUE(IsOpen(raw));
    UniqueFd(raw).Reset();
}

TEST(OutErrorTest, HandsOverTheErrorOfTheLastCallOnly) {
    base::GErrorPtr error;
    EXPECT_STREQ(base::ErrorText(error.get()), "unknown error");
    g_set_error_literal(base::OutError(error), G_IO_ERROR, G_IO_ERROR_FAILED, "broken");
    ASSERT_NE(error, nullptr);
    EXPECT_STREQ(base::ErrorText(error.get()), "broken");
    const auto succeed = [](GError** /*error*/) {};
    succeed(base::OutError(error));
    EXPECT_EQ(error, nullptr);
}

TEST(StartTimerTest, RunsOnceOnItsContext) {
    const base::GMainContextPtr context(g_main_context_new());
    int count = 0;
    const base::GSourcePtr timer = base::StartTimer(context.get(), 0, [&count] { ++count; });
    g_main_context_iteration(context.get(), TRUE);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(g_main_context_iteration(context.get(), FALSE), FALSE);
    EXPECT_EQ(count, 1);
}

TEST(StartTimerTest, IsCancelledByItsDestructionAlsoFromInside) {
    const base::GMainContextPtr context(g_main_context_new());
    int count = 0;
    base::GSourcePtr timer = base::StartTimer(context.get(), 0, [&count] { ++count; });
    timer = base::StartTimer(context.get(), 0, [&] {
        timer.reset();
        ++count;
    });
    g_main_context_iteration(context.get(), TRUE);
    EXPECT_EQ(g_main_context_iteration(context.get(), FALSE), FALSE);
    EXPECT_EQ(count, 1);
}

base::DatabasePtr OpenInMemory() {
    sqlite3* raw = nullptr;
    EXPECT_EQ(sqlite3_open(":memory:", &raw), SQLITE_OK);
    return base::DatabasePtr(raw);
}

TEST(SqliteHandles, AStatementIsReadyForItsNextRunWithoutWhatWasBound) {
    const base::DatabasePtr database = OpenInMemory();
    const base::StatementPtr statement = base::Prepare(database.get(), "SELECT ?1, ?2");
    ASSERT_NE(statement, nullptr);
    {
        base::Run run(statement);
        run.Bind(1, std::string_view("text\0end", 8));
        run.Bind(2, std::int64_t{1} << 40);
        ASSERT_EQ(run.Step(), SQLITE_ROW);
        EXPECT_EQ(run.Text(0), std::string_view("text\0end", 8));
        EXPECT_EQ(run.Number(1), std::int64_t{1} << 40);
    }
    base::Run again(statement);
    ASSERT_EQ(again.Step(), SQLITE_ROW);
    EXPECT_EQ(again.Text(0), "");
    EXPECT_EQ(again.Number(1), 0);
}

TEST(SqliteHandles, AnEmptyTextIsNotNull) {
    const base::DatabasePtr database = OpenInMemory();
    const base::StatementPtr statement = base::Prepare(database.get(), "SELECT ?1 IS NULL");
    base::Run run(statement);
    run.Bind(1, std::string_view());
    ASSERT_EQ(run.Step(), SQLITE_ROW);
    EXPECT_EQ(run.Number(0), 0);
}

TEST(SqliteHandles, WhatCannotBePreparedIsNull) {
    const base::DatabasePtr database = OpenInMemory();
    EXPECT_EQ(base::Prepare(database.get(), "SELECT x FROM nowhere"), nullptr);
    EXPECT_EQ(sqlite3_errcode(database.get()), SQLITE_ERROR);
}

}  // namespace
