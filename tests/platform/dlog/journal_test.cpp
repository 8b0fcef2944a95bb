#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-id128.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "child_process.h"
#include "device_paths.h"
#include "dlog/log_sinks.h"
#include "source.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;

namespace {

using child::Process;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

/// The receiving end of the journal's native protocol.
class JournalSocket {
public:
    JournalSocket()
        : m_path(m_folder.Path() + "/socket"), m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        m_address.sun_family = AF_UNIX;
        m_path.copy(m_address.sun_path, sizeof(m_address.sun_path) - 1);
        EXPECT_EQ(bind(m_fd.Get(), reinterpret_cast<const sockaddr*>(&m_address), sizeof(m_address)), 0);
    }
    JournalSocket(const JournalSocket&) = delete;
    JournalSocket& operator=(const JournalSocket&) = delete;

    const std::string& Path() const { return m_path; }
    /// The next message; empty when there is none.
    std::string Receive() {
        std::array<char, 8192> message;
        const ssize_t length = recv(m_fd.Get(), message.data(), message.size(), MSG_DONTWAIT);
        return {message.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    }

private:
    TemporaryFolder m_folder;
    const std::string m_path;
    base::UniqueFd m_fd;
    sockaddr_un m_address{};
};

constexpr pid_t kProcess = 7;
constexpr pid_t kThread = 8;

struct TestLine {
    int level;
    const char* tag;
    const char* text;
};
TestLine Line(int level, const char* tag, const char* text) {
    return {level, tag, text};
}

void Write(const JournalSocket& socket, const char* buffer, const TestLine& line) {
    dlog::JournalSink(buffer, socket.Path()).Write({line.level, line.tag, line.text, {}, kProcess, kThread});
}

/// What the sink of a buffer sends for a line.
std::string Sent(const char* buffer, const TestLine& line) {
    JournalSocket socket;
    Write(socket, buffer, line);
    return socket.Receive();
}

TEST(JournalSink, SendsTheLineAsFields) {
    const std::string sent = Sent("system", Line(4, "TAG", "text"));
    EXPECT_THAT(sent, AllOf(HasSubstr("MESSAGE=text\n"), HasSubstr("SYSLOG_IDENTIFIER=TAG\n"),
                            HasSubstr("DLOG_BUFFER=system\n"), HasSubstr("TID=8\n")));
}

TEST(JournalSink, GivesEachPriorityTheJournalsOwnAndItsLetter) {
    const std::array<const char*, 6> expected = {"PRIORITY=7\nV", "PRIORITY=7\nD", "PRIORITY=6\nI",
                                                 "PRIORITY=4\nW", "PRIORITY=3\nE", "PRIORITY=2\nF"};
    for (int level = 0; level < 6; ++level) {
        const std::string sent = Sent("main", Line(level, "TAG", "text"));
        const std::string both = expected[static_cast<std::size_t>(level)];
        EXPECT_THAT(sent, AllOf(HasSubstr("\n" + both.substr(0, both.size() - 1)),
                                HasSubstr("DLOG_PRIORITY=" + both.substr(both.size() - 1) + "\n")));
    }
}

TEST(JournalSink, SendsALineBreakInsideItsField) {
    const std::string sent = Sent("main", Line(2, "TAG", "a\nPRIORITY=0"));
    EXPECT_THAT(sent, HasSubstr(std::string("MESSAGE\n\x0c\0\0\0\0\0\0\0a\nPRIORITY=0\n", 29)));
}

/// A machine whose log is in the journal: a root with a journal file.
class JournalReader : public testing::Test {
protected:
    JournalReader() {
        fs::create_directories(m_root.Path() + fs::path(ZOL_PATH_JOURNAL_SOCKET).parent_path().string());
        std::ofstream(m_root.Path() + ZOL_PATH_JOURNAL_SOCKET).flush();
        fs::create_directories(m_journal);
        sd_id128_t boot{};
        EXPECT_EQ(sd_id128_get_boot(&boot), 0);
        std::array<char, SD_ID128_STRING_MAX> text{};
        m_thisBoot = sd_id128_to_string(boot, text.data());
    }

    /// Adds an entry, a second after the one before, as the journal itself does: with the sender's process.
    void Add(const std::string& fields, const std::string& boot) {
        const std::string file = m_root.Path() + "/export";
        ++m_seconds;
        std::ofstream(file) << "__REALTIME_TIMESTAMP=" << m_seconds
                            << "123456\n__MONOTONIC_TIMESTAMP=" << m_seconds - kStart
                            << "654321\n_BOOT_ID=" << boot << "\n_PID=" << kProcess << "\n"
                            << fields << "\n";
        Process writer = Process::Run({"/lib/systemd/systemd-journal-remote", "--split-mode=none",
                                       "--output=" + m_journal + "/system.journal", file},
                                      "");
        EXPECT_EQ(writer.Wait(), 0);
    }
    void Add(const std::string& fields) { Add(fields, m_thisBoot); }
    void Log(const char* buffer, int level, const char* tag, const char* text) {
        Add(Sent(buffer, Line(level, tag, text)));
    }

    Process Start(const child::Arguments& arguments) {
        return Process::Of("dlogutil", arguments, m_root.Path());
    }
    std::string Output(const child::Arguments& arguments) {
        Process process = Start(arguments);
        std::string text = process.ReadAll();
        EXPECT_EQ(process.Wait(), 0);
        return text;
    }
    /// The messages that come out of the journal for these tags, before the program's own filters.
    std::vector<std::string> Read(const std::vector<std::string>& tags) {
        std::vector<std::string> messages;
        const auto source = dlogutil::MakeJournalSource(m_root.Path(), {"main", "system"}, tags);
        EXPECT_TRUE(
            source->Drain([&](const dlogutil::Record& record) { messages.push_back(record.message); }));
        return messages;
    }

private:
    static constexpr int kStart = 1700000000;

    TemporaryFolder m_root;
    const std::string m_journal = m_root.Path() + "/var/log/journal/" + std::string(32, 'a');
    std::string m_thisBoot;
    int m_seconds = kStart;
};

TEST_F(JournalReader, ShowsWhatWasLogged) {
    Log("main", 4, "A", "one");
    Log("system", 0, "B", "two\nlines");

    EXPECT_THAT(
        Output({"-d"}),
        MatchesRegex("2023-11-1[0-9 :]+\\.123 E/A\\(7:8\\): one\n[^\n]+ V/B\\(7:8\\): two\\\\nlines\n"));
    EXPECT_EQ(Output({"-d", "-v", "brief", "-b", "system"}), "V/B(7): two\\nlines\n");
    EXPECT_EQ(Output({"-d", "-v", "brief", "A"}), "E/A(7): one\n");
    EXPECT_EQ(Output({"-d", "-v", "brief", "A:F"}), "");
}

TEST_F(JournalReader, PutsTheMonotonicClockInFrontAsKernelTime) {
    Log("main", 4, "A", "one");
    EXPECT_EQ(Output({"-d", "-v", "kerneltime"}), "1.654321 E/A(7:8): one\n");
}

TEST_F(JournalReader, LeavesOutEarlierBoots) {
    Add("MESSAGE=old\nSYSLOG_IDENTIFIER=A\nDLOG_BUFFER=main\n", std::string(32, 'b'));
    Log("main", 2, "A", "new");
    EXPECT_EQ(Output({"-d", "-v", "brief"}), "I/A(7): new\n");
}

TEST_F(JournalReader, ShowsOtherProgramsOnlyWhenTheirTagIsAskedFor) {
    Add("MESSAGE=other\nSYSLOG_IDENTIFIER=other\nPRIORITY=4\n");
    Log("main", 2, "A", "one");
    EXPECT_EQ(Output({"-d", "-v", "brief"}), "I/A(7): one\n");
    EXPECT_THAT(Output({"-d", "other"}), EndsWith(" W/other(7:7): other\n"));
}

TEST_F(JournalReader, ReadsNothingButTheTagsThatAreAskedFor) {
    Log("main", 2, "A", "one");
    Log("main", 2, "B", "two");
    Log("system", 2, "C", "three");
    EXPECT_EQ(Read({"A", "C"}), (std::vector<std::string>{"one", "three"}));
    EXPECT_EQ(Read({}), (std::vector<std::string>{"one", "two", "three"}));
}

TEST_F(JournalReader, FollowsWhatIsLoggedLater) {
    Log("main", 2, "A", "before");
    Process follower = Start({"-v", "brief"});
    EXPECT_EQ(follower.ReadLine(), "I/A(7): before");
    Log("main", 2, "A", "after");
    EXPECT_EQ(follower.ReadLine(), "I/A(7): after");
}

}  // namespace
