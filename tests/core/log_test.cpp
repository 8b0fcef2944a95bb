#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/errqueue.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <thread>
#include <vector>

#include "Logging.h"
#include "allocations.h"
#include "death.h"
#include "fake_clock.h"
#include "log_fixture.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

using Log = RuntimeLog;

TEST_F(Log, TheOtherTypesAreInfoInThePlatformLog) {
    Configure("Z:*\n");
    _PRINT(2, "two");
    _PRINT(4, "four");
    _PRINT(8, "eight");

    for (const char* text : {"two", "four", "eight"}) {
        const fakes::LogLine line = fakes::dlog::Find(text);
        EXPECT_EQ(line.priority, 4) << text;
        EXPECT_EQ(line.buffer, 0) << text;
        EXPECT_EQ(line.tag, "ATSC3GST") << text;
    }
}

TEST_F(Log, WithoutAConfigurationAnErrorReachesThePlatformLogAndAnInfoLineDoesNot) {
    _PRINT(4, "not to be seen");
    _PRINT(3, "of several types, which the platform log drops");
    _PRINT(1, "the %s of %d", "answer", 42);

    ASSERT_EQ(fakes::dlog::Lines().size(), 1U);
    const fakes::LogLine line = fakes::dlog::Lines()[0];
    EXPECT_EQ(line.tag, "ATSC3GST");
    EXPECT_EQ(line.priority, 6);
    EXPECT_EQ(line.buffer, 0);
    EXPECT_THAT(line.text, EndsWith(" ZOL--> the answer of 42\n"));
}

TEST_F(Log, ThePrefixShowsTypeThreadMicrosecondsAndSequence) {
    fakes::clock::SetWall(1700000123, 456789999);
    _PRINT(1, "first");
    _PRINT(8, "second");

    char prefix[100];
    std::snprintf(prefix, sizeof(prefix), "[E][%08lx](%09u) [%5llu] %s first\n", ThreadId(), 123456789U, 0ULL,
                  "ZOL-->");
    EXPECT_EQ(fakes::dlog::Find("first").text, prefix);
    EXPECT_THAT(fakes::dlog::Find("second").text, HasSubstr("(123456789) [    1] ZOL--> second"));
    EXPECT_EQ(fakes::dlog::Find("second").text.substr(0, 4), "[G][");
}

TEST_F(Log, FilteredLinesTakeNoSequenceNumber) {
    for (int i = 0; i < 3; ++i) {
        _PRINT(4, "filtered");
    }
    _PRINT(1, "one");
    _PRINT(4, "filtered");
    _PRINT(1, "two");

    EXPECT_THAT(fakes::dlog::Find("one").text, HasSubstr("[    0]"));
    EXPECT_THAT(fakes::dlog::Find("two").text, HasSubstr("[    1]"));
    EXPECT_EQ(g_seqNum, 2U);
}

TEST_F(Log, ALongLineIsCutAt2046BytesAndANewline) {
    const std::string longText(5000, 'x');
    _PRINT(1, "%s", longText.c_str());

    const std::string text = fakes::dlog::Find("xxx").text;
    EXPECT_EQ(text.size(), 2047U);
    EXPECT_THAT(text, EndsWith("xx\n"));
}

TEST_F(Log, ALetterStandsForEachTypeAndAQuestionMarkForAnythingElse) {
    const std::string letters = "?ED?I???G??";
    for (unsigned type = 0; type < letters.size(); ++type) {
        EXPECT_EQ(_TYPE_TO_CHAR(static_cast<ELogType>(type)), letters[type]) << type;
    }
}

TEST_F(Log, LinesCanGoToStandardOutputAndNowhereByAnUnknownWay) {
    Configure("PRINT\nZ:E\n");
    CaptureStdout();
    _PRINT(1, "on the screen");
    SendDebugMsgs(static_cast<ELogWay>(7), LOG_TYPE_E, "nowhere");

    EXPECT_THAT(GetCapturedStdout(), EndsWith("ZOL--> on the screen\n"));
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(Log, ALineBeforeACrashReachesStandardOutput) {
    Configure("PRINT\nZ:E\n");
    std::FILE* const output = std::tmpfile();
    ASSERT_NE(output, nullptr);
    EXPECT_EXIT(
        {
            dup2(fileno(output), STDOUT_FILENO);
            _PRINT(1, "before the crash");
            __ASSERT_ATSC3("a == b", "core/src/X", 7);
        },
        Crashed, "");

    char text[1024];
    std::rewind(output);
    const std::size_t length = std::fread(text, 1, sizeof(text) - 1, output);
    text[length] = '\0';
    std::fclose(output);
    EXPECT_THAT(text, HasSubstr("ZOL--> before the crash\n"));
    EXPECT_THAT(text, EndsWith("ZOL--> ASSERT: a == b [core/src/X:7]\n"));
}

TEST_F(Log, ALineAllocatesNothing) {
    Configure("PRINT\nZ:E\n");
    CaptureStdout();
    _PRINT(1, "sets up the log and the stream");
    const unsigned long before = ThreadAllocations();
    for (int i = 0; i < 100; ++i) {
        _PRINT(1, "line %d of %s with %08lx", i, "many", ThreadId());
        _PRINT(4, "filtered %d", i);
    }
    const unsigned long after = ThreadAllocations();
    GetCapturedStdout();

    EXPECT_EQ(after, before);
    const std::unique_ptr<int> one = std::make_unique<int>(1);
    EXPECT_GT(ThreadAllocations(), after) << "the counter counts";
}

TEST_F(Log, ThreadsThatLogFirstSetItUpOnce) {
    constexpr int kThreads = 4;
    constexpr int kLines = 50;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (int line = 0; line < kLines; ++line) {
                _PRINT(1, "line");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(fakes::dlog::Count("line"), kThreads * kLines);
    EXPECT_EQ(g_seqNum, static_cast<std::uint64_t>(kThreads * kLines));
}

/// What a host on the loop-back network gets from the log. Port 419 needs rights; without them the refusal
/// that the kernel returns for a closed port shows the same: address, port and content of the datagram.
class Datagrams {
public:
    /// @param host tells the hosts of one test apart; the rest of the address tells processes apart
    explicit Datagrams(int host) {
        const int id = static_cast<int>(getpid());
        m_address = "127." + std::to_string(100 + host) + "." + std::to_string(id / 250 % 250) + "." +
                    std::to_string(id % 250 + 1);
        m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in self{};
        self.sin_family = AF_INET;
        self.sin_port = htons(kPort);
        self.sin_addr.s_addr = inet_addr(m_address.c_str());
        m_bound = bind(m_fd, reinterpret_cast<const sockaddr*>(&self), sizeof(self)) == 0;
    }
    ~Datagrams() { close(m_fd); }
    Datagrams(const Datagrams&) = delete;
    Datagrams& operator=(const Datagrams&) = delete;

    const std::string& Address() const { return m_address; }
    bool Bound() const { return m_bound; }

    /// To be called before anything is sent through `sender`.
    void Watch(int sender) {
        m_sender = sender;
        const int on = 1;
        EXPECT_EQ(setsockopt(sender, IPPROTO_IP, IP_RECVERR, &on, sizeof(on)), 0);
    }

    std::string Next() { return m_bound ? Receive() : ReceiveRefused(); }

private:
    static constexpr std::uint16_t kPort = 419;

    std::string Receive() const {
        pollfd ready{m_fd, POLLIN, 0};
        char text[4096];
        const ssize_t length = poll(&ready, 1, 10000) == 1 ? recv(m_fd, text, sizeof(text), 0) : -1;
        return length < 0 ? "nothing came" : std::string(text, static_cast<std::size_t>(length));
    }

    std::string ReceiveRefused() const {
        pollfd ready{m_sender, 0, 0};
        char text[4096];
        char control[512];
        sockaddr_in to{};
        iovec part{text, sizeof(text)};
        msghdr message{};
        message.msg_name = &to;
        message.msg_namelen = sizeof(to);
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        const ssize_t length = poll(&ready, 1, 10000) == 1 ? recvmsg(m_sender, &message, MSG_ERRQUEUE) : -1;
        if (length < 0) {
            return "nothing came back";
        }
        EXPECT_EQ(ntohs(to.sin_port), kPort);
        EXPECT_EQ(to.sin_addr.s_addr, inet_addr(m_address.c_str()));
        return std::string(text, static_cast<std::size_t>(length));
    }

    std::string m_address;
    int m_fd = -1;
    bool m_bound = false;
    int m_sender = -1;
};

TEST_F(Log, ADatagramGoesToPort419OfEveryAddress) {
    Datagrams first(1);
    Datagrams second(2);
    Configure("UDP\nnot.an.address\n" + first.Address() + "\n" + second.Address() + "\nZ:E\n");
    _PRINT(4, "filtered, but sets up the log");
    first.Watch(g_sockfd);
    second.Watch(g_sockfd);

    _PRINT(1, "hello");

    EXPECT_THAT(first.Next(), EndsWith("[    0] ZOL--> hello\n"));
    if (second.Bound()) {  // otherwise the refusal of the first stopped it
        EXPECT_THAT(second.Next(), EndsWith("[    0] ZOL--> hello\n"));
    }
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(Log, TheUdpPrinterSendsDatagramsWhateverTheWay) {
    Datagrams host(1);
    Configure(host.Address() + "\nDLOG\nZ:E\n");
    _PRINT(4, "filtered, but sets up the log");
    EXPECT_EQ(g_sockfd, -1);
    SendDebugMsgs(LOG_WAY_UDP, LOG_TYPE_E, "opens the socket");
    ASSERT_GE(g_sockfd, 0);

    if (host.Bound()) {
        EXPECT_EQ(host.Next(), "opens the socket");
    }
    host.Watch(g_sockfd);

    _PRINT_UDP_F(4, "filtered");
    _PRINT_UDP_F(1, "hello %d %s", 7, "times");

    EXPECT_THAT(host.Next(), EndsWith(") [0] ZOL--> hello 7 times\n"));
    EXPECT_TRUE(fakes::dlog::Lines().empty());
    close(g_sockfd);  // Finalize closes it only when lines go out by UDP
}

TEST_F(Log, AFailedCheckNamesItsSourceAndExpression) {
    EXPECT_TRUE(_CHECK(true, "fine", "core/src/X", 1));
    EXPECT_FALSE(_CHECK(false, "CCSemaphore::Create(0)", "core/src/X", 26));

    EXPECT_EQ(fakes::dlog::Lines().size(), 1U);
    EXPECT_TRUE(fakes::dlog::Has("_CHECK FAIL: core/src/X:26, CCSemaphore::Create(0)"));
}

}  // namespace
