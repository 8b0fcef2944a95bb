/// What clients that mean no good can do to the service: nothing.
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "child_process.h"
#include "key_store_fixture.h"
#include "vconf/protocol.h"
#include "waiting.h"

namespace {

using keystore::Message;
using keystore::Operation;
using keystore::SendFrame;
using keystore::Transfer;

Message Request(Operation operation, const std::string& key) {
    Message request;
    request.operation = operation;
    request.key = key;
    request.ticket = 1;
    return request;
}

class Attacker : public KeyStoreTest {
protected:
    base::UniqueFd Connect() { return RawConnection(Root()); }

    /// What the service answers to these bytes: an errno, or -1 when it hangs up.
    int Answer(const std::string& frame) {
        const base::UniqueFd connection = Connect();
        EXPECT_GE(send(connection.Get(), frame.data(), frame.size(), MSG_NOSIGNAL), 0);
        Message answer;
        return m_receiver.Receive(connection.Get(), &answer) == Transfer::Done ? answer.error : -1;
    }

    keystore::Receiver m_receiver;
};

TEST_F(Attacker, WhoSendsWhatIsNoRequestIsCutOff) {
    ASSERT_TRUE(SetInt("db/k", 1));
    const std::string good = Pack(Request(Operation::Get, "db/k"));
    ASSERT_EQ(Answer(good), 0);
    const auto with = [&](std::size_t place, const std::string& bytes) {
        return std::string(good).replace(place, bytes.size(), bytes);
    };
    const std::string ff4(4, '\xff');
    for (const std::string& frame :
         {std::string(), std::string("x"), good.substr(0, 31), good + "x", good.substr(0, good.size() - 1),
          std::string(32, '\0'), std::string(100, '\xff'), std::string(70000, 'x'),
          with(0, std::string(1, '\0')), with(0, "\x05"), with(0, "\x06"), with(0, "\x08"), with(1, "\x04"),
          with(2, "\xff\xff"), with(4, ff4), with(4, std::string("\x01\x00\x00\x00", 4)),
          with(34, std::string(1, '\0'))}) {
        EXPECT_EQ(Answer(frame), -1) << testing::PrintToString(frame.substr(0, 40));
    }
    EXPECT_EQ(GetInt("db/k"), 1);
    EXPECT_EQ(Answer(Pack(Request(Operation::Get, ""))), ENOENT);
    EXPECT_EQ(Answer(Pack(Request(Operation::Watch, ""))), EINVAL);
    Message set = Request(Operation::Set, "");
    set.value.type = VCONF_TYPE_INT;
    EXPECT_EQ(Answer(Pack(set)), EINVAL);
}

TEST_F(Attacker, WhoReadsNoAnswersHoldsUpNobody) {
    ASSERT_EQ(vconf_set_str("db/k", std::string(60000, 'x').c_str()), 0);
    const base::UniqueFd connection = Connect();
    const std::string get = Pack(Request(Operation::Get, "db/k"));
    int sent = 0;
    while (SendFrame(connection.Get(), get, MSG_DONTWAIT) == Transfer::Done) {
        ++sent;
    }
    EXPECT_LT(sent, 10000);
    EXPECT_TRUE(SetInt("db/other", 1));
    Message answer;
    for (int received = 0; received < sent; ++received) {
        ASSERT_EQ(m_receiver.Receive(connection.Get(), &answer), Transfer::Done);
        EXPECT_EQ(answer.value.text.size(), 60000U);
    }
}

TEST_F(Attacker, WhoReadsNoChangesGetsTheLastOfEachKeyLater) {
    constexpr int kKeys = 50;
    const base::UniqueFd connection = Connect();
    Message message;
    for (int key = 0; key < kKeys; ++key) {
        Message request = Request(Operation::Watch, "memory/k" + std::to_string(key));
        request.change = keystore::kFromNow;
        ASSERT_EQ(SendFrame(connection.Get(), Pack(request)), Transfer::Done);
        ASSERT_EQ(m_receiver.Receive(connection.Get(), &message), Transfer::Done);
    }
    for (int value = 1; value <= 100; ++value) {
        for (int key = 0; key < kKeys; ++key) {
            ASSERT_TRUE(SetInt("memory/k" + std::to_string(key), value));
        }
    }
    int received = 0;
    for (int done = 0; done < kKeys; ++received) {
        ASSERT_EQ(m_receiver.Receive(connection.Get(), &message), Transfer::Done);
        done += message.value.number == 100 ? 1 : 0;
    }
    EXPECT_LT(received, 100 * kKeys);
    EXPECT_EQ(m_receiver.Receive(connection.Get(), &message, MSG_DONTWAIT), Transfer::WouldBlock);
}

TEST_F(Attacker, WhoSetsANumberBesideATextOrARemovalTellsWatchersNothingOfIt) {
    const base::UniqueFd connection = Connect();
    Message message;
    Message watch = Request(Operation::Watch, "db/k");
    watch.change = keystore::kFromNow;
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_EQ(SendFrame(connection.Get(), Pack(watch)), Transfer::Done);
    ASSERT_EQ(m_receiver.Receive(connection.Get(), &message), Transfer::Done);
    for (const int type : {VCONF_TYPE_STRING, VCONF_TYPE_NONE}) {
        Message set = Request(Operation::Set, "db/k");
        set.value = {type, 7, ""};
        ASSERT_EQ(Answer(Pack(set)), 0);

        ASSERT_EQ(m_receiver.Receive(connection.Get(), &message), Transfer::Done);
        EXPECT_EQ(message.operation, Operation::Changed);
        EXPECT_EQ(message.value.type, type);
        EXPECT_EQ(message.value.number, 0);
    }
}

TEST_F(Attacker, CannotStoreMoreThanItsShare) {
    int stored = 0;
    const std::string text(65536, 'x');
    while (stored < 1000 && vconf_set_str(("memory/k" + std::to_string(stored)).c_str(), text.c_str()) == 0) {
        ++stored;
    }
    EXPECT_EQ(errno, EDQUOT);
    EXPECT_EQ(stored, 127);
    EXPECT_EQ(vconf_set_str("db/k", text.c_str()), -1);
    EXPECT_EQ(errno, EDQUOT);
    EXPECT_TRUE(SetInt("memory/k0", 1));
    EXPECT_EQ(vconf_set_str("db/k", text.c_str()), 0);
    EXPECT_EQ(vconf_unset("memory/k1"), 0);
    Service().Kill();
    Service().Start();
    EXPECT_EQ(vconf_set_str("memory/k1", text.c_str()), 0);
    EXPECT_EQ(vconf_set_str("memory/k0", text.c_str()), -1);
}

TEST_F(Attacker, CannotHaveMoreKeysThanItsShare) {
    int stored = 0;
    while (stored < 20000 && SetInt("memory/" + std::to_string(stored), stored)) {
        ++stored;
    }
    EXPECT_EQ(errno, EDQUOT);
    EXPECT_EQ(stored, 16384);
    EXPECT_TRUE(SetInt("memory/7", 8));
    EXPECT_EQ(vconf_unset("memory/7"), 0);
    EXPECT_TRUE(SetInt("memory/x", 8));
    EXPECT_FALSE(SetInt("memory/7", 8));
}

TEST_F(Attacker, CannotWatchMoreThanItsShare) {
    const base::UniqueFd connection = Connect();
    Message message;
    for (int key = 0; key <= 16384; ++key) {
        ASSERT_EQ(
            SendFrame(connection.Get(), Pack(Request(Operation::Watch, "memory/k" + std::to_string(key)))),
            Transfer::Done);
        do {
            ASSERT_EQ(m_receiver.Receive(connection.Get(), &message), Transfer::Done);
        } while (message.operation != Operation::Answer);
        EXPECT_EQ(message.error, key < 16384 ? 0 : EDQUOT);
    }
    Heard heard;
    EXPECT_FALSE(heard.Watch("db/k"));
    EXPECT_EQ(errno, EDQUOT);
}

TEST_F(Attacker, CannotHaveMoreConnectionsThanItsShare) {
    std::vector<base::UniqueFd> connections;
    Message answer;
    do {
        connections.push_back(Connect());
        ASSERT_LE(connections.size(), 64U + 1U);
        static_cast<void>(SendFrame(connections.back().Get(), Pack(Request(Operation::Get, "db/k"))));
        while (m_receiver.Receive(connections.back().Get(), &answer) != Transfer::Done) {
            ASSERT_EQ(errno, ECONNRESET);
        }
    } while (answer.error == ENOENT);
    EXPECT_EQ(answer.error, EDQUOT);
    connections.resize(10);
    EXPECT_TRUE(Eventually([] { return SetInt("db/k", 1); }));
}

/// Reads a key as an account that is neither root nor in any group. Tells the errno of that, a set and a
/// watch.
int UseAsStranger(const child::Arguments&) {
    constexpr gid_t kNobody = 65534;
    if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) {
        return 1;
    }
    int value = 0;
    vconf_get_int("db/k", &value);
    std::string reasons = std::to_string(errno);
    vconf_set_int("db/k", 2);
    reasons += " " + std::to_string(errno);
    vconf_notify_key_changed("db/k", &Heard::Callback, nullptr);
    child::Tell(reasons + " " + std::to_string(errno));
    return 0;
}
const child::Program kUseAsStranger("use-as-stranger", UseAsStranger);

TEST_F(Attacker, WhoIsAStrangerIsRefused) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can be somebody else";
    }
    ASSERT_TRUE(SetInt("db/k", 1));
    const std::string refused = std::to_string(EACCES);
    const std::string socket = Root() + "/run/zol/vconf.sock";
    // The socket's mode keeps strangers out, and the service asks who they are.
    for (const mode_t mode : {0600U, 0666U}) {
        ASSERT_EQ(chmod(socket.c_str(), mode), 0);
        child::Process stranger("use-as-stranger", {}, Root());
        EXPECT_EQ(stranger.ReadLine(), refused + " " + refused + " " + refused);
        EXPECT_EQ(stranger.Wait(), 0);
    }
    EXPECT_EQ(GetInt("db/k"), 1);
}

}  // namespace
