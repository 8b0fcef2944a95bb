#include "ZOLControl.h"

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "IControl.h"
#include "TCIpcSerializationUtil.h"
#include "ZOLControlNative.h"
#include "ZOLPolicyParser.h"
#include "device_paths.h"
#include "dlog.h"
#include "fake_dlog.h"
#include "policy_manager_fixture.h"
#include "policy_request.h"

namespace {

using boost::archive::archive_exception;
using Bytes = std::vector<unsigned char>;

/// Keeps what was registered, as the IPC server would.
class FakeDbus : public zol::IDbus {
public:
    void RegisterNativeCall(int functionCode, zol::NativeCallHandler handler) override {
        m_handlers[functionCode] = std::move(handler);
    }
    std::map<int, zol::NativeCallHandler> m_handlers;
};

class Control : public PolicyManagerTest {
protected:
    Control() : m_control(m_dbus, Start()) { fakes::dlog::Clear(); }

    /// A call as the server makes it.
    bool Call(const Bytes& in, Bytes& out) { return m_dbus.m_handlers.at(4)(in, out); }
    std::int32_t Answer(const std::string& xml);
    void ExpectRefused(const Bytes& in);

    FakeDbus m_dbus;
    zol::TCControlNative m_control;
};

/// A request whose string, or whose signature at position 0, announces another length.
Bytes Announcing(std::size_t length, std::size_t position) {
    Bytes bytes = PolicyRequest("text");
    std::memcpy(bytes.data() + position, &length, sizeof(length));
    return bytes;
}
std::size_t StringPosition() {
    return PolicyRequest("").size() - sizeof(std::size_t);
}

/// The integer of a reply, which holds nothing else.
std::int32_t Integer(const Bytes& reply) {
    std::stringstream stream;
    TCIpcSerializationUtil::ConvertData(reply, stream);
    boost::archive::binary_iarchive archive(stream);
    std::int32_t answer = -1;
    archive >> answer;
    EXPECT_EQ(stream.rdbuf()->in_avail(), 0);
    return answer;
}

std::int32_t Control::Answer(const std::string& xml) {
    Bytes out;
    EXPECT_TRUE(Call(PolicyRequest(xml), out));
    return Integer(out);
}

void Control::ExpectRefused(const Bytes& in) {
    Bytes out;
    EXPECT_THROW(Call(in, out), archive_exception) << in.size() << " bytes";
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(fakes::dlog::Has("Policy set api invoked"));
}

TEST_F(Control, OnlyThePolicySettingCallIsRegistered) {
    EXPECT_EQ(m_dbus.m_handlers.size(), 1U);
    EXPECT_EQ(m_dbus.m_handlers.count(4), 1U);
    EXPECT_EQ(zol::IControl_FC::SET_POLICY, 4);
}

TEST_F(Control, TheCallIsWithdrawnWhenTheAdapterGoes) {
    FakeDbus dbus;
    { const zol::TCControlNative control(dbus, *m_manager); }
    EXPECT_FALSE(dbus.m_handlers.at(4));
}

TEST_F(Control, AnyOtherCodeIsRefusedWithoutAReply) {
    for (const int code : {5, 3, 0, -1}) {
        Bytes out;
        EXPECT_FALSE(m_control.m_OnCallReceived(code, PolicyRequest(PolicyFor("db/a")), out)) << code;
        EXPECT_TRUE(out.empty());
    }
    EXPECT_FALSE(fakes::dlog::Has("Policy set api invoked"));
}

TEST_F(Control, ACallWithoutBytesIsRefusedWithoutAReply) {
    Bytes out;
    EXPECT_FALSE(Call({}, out));
    EXPECT_TRUE(out.empty());
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"error: no input"});
}

TEST_F(Control, AnAcceptedPolicyIsAnsweredWithOne) {
    EXPECT_EQ(Answer(PolicyFor("db/a")), 1);
    EXPECT_EQ(StoredPolicy(), PolicyFor("db/a"));
    EXPECT_TRUE(IsRunning());
    ExpectLogged(DLOG_PRIORITY_DEBUG, {"Policy set api invoked"});
}

TEST_F(Control, ACommandsOnlyPolicyIsAnsweredWithOneEvenAnEmptyString) {
    EXPECT_EQ(Answer("<zolitem><monitor kind=\"3\" method=\"31\"/></zolitem>"), 1);
    EXPECT_EQ(Answer(""), 1);
    EXPECT_EQ(Logged("Policy contains commands only"), 2);
}

TEST_F(Control, APolicyThatIsRefusedOrCannotBeStoredIsAHandledCallAnsweredWithZero) {
    EXPECT_EQ(Answer("<zolitem></zols>"), 0);
    EXPECT_EQ(Answer(std::string("<a>\0</a>", 8)), 0) << "any byte reaches the parser";
    EXPECT_EQ(Logged("Error while parsing policy"), 2);
    fakes::MakeDeviceFolder(ZOL_PATH_POLICY ".new");
    EXPECT_EQ(Answer(PolicyFor("db/a")), 0);
}

TEST_F(Control, ARequestCutAtAnyByteIsRefused) {
    const Bytes whole = PolicyRequest(PolicyFor("db/a"));
    for (std::size_t length = 1; length < whole.size(); ++length) {
        ExpectRefused(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
    }
}

TEST_F(Control, RandomBytesAreRefused) {
    std::mt19937 random(20231114);  // always the same bytes
    for (int round = 0; round < 2000; ++round) {
        Bytes bytes(1 + random() % 300);
        for (unsigned char& byte : bytes) {
            byte = static_cast<unsigned char>(random());
        }
        ExpectRefused(bytes);
    }
}

TEST_F(Control, AStringOrSignatureThatAnnouncesMoreThanItCarriesIsRefusedBeforeRoomIsMade) {
    const std::size_t huge = std::size_t{1} << (sizeof(std::size_t) * 8 - 4);
    for (const std::size_t announced : {huge, std::numeric_limits<std::size_t>::max(), std::size_t{1000}}) {
        const std::string reason = "Request announces " + std::to_string(announced) + " bytes";
        ExpectRefused(Announcing(announced, StringPosition()));
        EXPECT_EQ(Logged(reason + " and carries 4"), 1);
        ExpectRefused(Announcing(announced, 0));
        EXPECT_EQ(Logged(reason), 2);
    }
    ExpectRefused(Announcing(5, StringPosition()));
    EXPECT_EQ(Logged("Request announces 5 bytes and carries 4"), 1);
}

TEST_F(Control, APolicyLongerThanTheLimitIsRefusedBeforeRoomIsMade) {
    std::string xml = PolicyFor("db/a");
    xml.resize(zol::kMaxPolicyBytes, ' ');
    EXPECT_EQ(Answer(xml), 1);

    fakes::dlog::Clear();
    Bytes out;
    std::string reason;
    try {
        Call(PolicyRequest(xml + " "), out);
    } catch (const std::length_error& error) {
        reason = error.what();
    }
    EXPECT_EQ(reason, "policy of more than 4194304 bytes");
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(fakes::dlog::Has("Policy set api invoked"));
    EXPECT_TRUE(fakes::dlog::Has("Request of 4194305 bytes refused, at most 4194304 are taken"));
}

TEST_F(Control, ARequestWithOneBitChangedIsRefusedOrTakenForTheTextThatItCarries) {
    const std::string xml = PolicyFor("db/a");
    const Bytes whole = PolicyRequest(xml);
    for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
        Bytes changed = whole;
        changed[bit / 8] = static_cast<unsigned char>(changed[bit / 8] ^ (1U << (bit % 8)));
        const std::string bytes(changed.begin(), changed.end());
        const std::string text = bytes.substr(whole.size() - xml.size());
        StorePolicy("");
        fakes::vconf::SetBool(kRunningKey, true);  // store only: this is not about tasks
        fakes::dlog::Clear();

        Bytes out;
        bool isHandled = false;
        try {
            isHandled = Call(changed, out);
        } catch (const archive_exception&) {
        }

        EXPECT_EQ(isHandled, fakes::dlog::Has("Policy set api invoked")) << bit;
        EXPECT_EQ(isHandled, !out.empty()) << bit;
        EXPECT_NE(bytes.find(StoredPolicy()), std::string::npos) << bit;
        if (text != xml) {
            zol::ZOLPolicy policy;
            ASSERT_TRUE(isHandled) << bit;
            EXPECT_EQ(Integer(out) == 1, zol::TCPolicyParser().Parse(text, policy)) << bit;
            EXPECT_TRUE(StoredPolicy().empty() || StoredPolicy() == text) << bit;
        }
    }
}

TEST_F(Control, BytesBehindTheStringAreIgnored) {
    Bytes bytes = PolicyRequest("");
    bytes.insert(bytes.end(), 100, 0xFF);
    Bytes out;
    EXPECT_TRUE(Call(bytes, out));
}

}  // namespace
