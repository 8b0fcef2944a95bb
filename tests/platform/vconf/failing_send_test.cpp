#include <sys/socket.h>

#include <cerrno>

#include "child_process.h"
#include "key_store_fixture.h"
#include "waiting.h"

namespace {

thread_local int t_untilFailure = 0;

}  // namespace

/// In place of the C library's: fails once when the kernel has no memory for the message.
extern "C" ssize_t send(int socket, const void* data, size_t size, int flags) {
    if (t_untilFailure > 0 && --t_untilFailure == 0) {
        errno = ENOBUFS;
        return -1;
    }
    return sendto(socket, data, size, flags, nullptr, 0);
}

namespace {

class ASendThatFails : public KeyStoreTest {
protected:
    ~ASendThatFails() override { t_untilFailure = 0; }
    /// The next one of this thread.
    static void FailNextSend() { t_untilFailure = 1; }
    static bool HasFailed() { return t_untilFailure == 0; }
};

TEST_F(ASendThatFails, IsRepeatedOnAnotherConnection) {
    ASSERT_TRUE(SetInt("db/k", 1));
    FailNextSend();

    EXPECT_TRUE(SetInt("db/k", 2));

    EXPECT_TRUE(HasFailed());
    EXPECT_EQ(GetInt("db/k"), 2);
}

TEST_F(ASendThatFails, WhileAWatchIsWithdrawnLeavesTheOthersHearing) {
    Heard heard;
    Heard other;
    ASSERT_TRUE(heard.Watch("db/k"));
    ASSERT_TRUE(other.Watch("db/other"));
    FailNextSend();
    ASSERT_TRUE(other.Withdraw("db/other"));
    ASSERT_TRUE(HasFailed());

    InAnotherProcess({"int", "db/k", "5"});

    EXPECT_TRUE(ServeUntil([&] { return heard.number == 5; }));
}

TEST_F(ASendThatFails, LosesNoWatchWhenTheServiceIsBack) {
    if (child::IsEmulated()) {
        GTEST_SKIP() << "an emulated program cannot start another one";
    }
    Heard heard;
    ASSERT_TRUE(heard.Watch("db/k"));
    Service().Kill();
    FailNextSend();
    ASSERT_TRUE(ServeUntil([] { return HasFailed(); }));

    InAnotherProcess({"int", "db/k", "5"});

    EXPECT_TRUE(ServeUntil([&] { return heard.number == 5; }));
}

}  // namespace
