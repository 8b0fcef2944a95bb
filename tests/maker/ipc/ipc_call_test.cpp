/// Calls of the IPC, through the real client class, the real server and a real bus.
#include <gmock/gmock.h>
#include <malloc.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>

#include "child_process.h"
#include "dlog.h"
#include "ipc_fixture.h"
#include "waiting.h"

namespace {

using test::Bytes;
using test::CallOnce;
using test::EResult;
using test::Outcome;
using testing::HasSubstr;

constexpr std::size_t kMiB = std::size_t{1024} * 1024;

class IpcCall : public test::OnServedBus {};

GVariant* Arguments(int code, std::size_t size) {
    const Bytes bytes(size, 1);
    return g_variant_new("(i@ay)", code,
                         g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1));
}

TEST_F(IpcCall, AHandledCallCarriesItsBytesBothWaysHoweverManyTheyAre) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{5}, kMiB}) {
        Bytes request(size);
        for (std::size_t i = 0; i < size; ++i) {
            request[i] = static_cast<unsigned char>(i * 31 + i / 256);
        }

        const Outcome outcome = CallOnce(test::kEcho, request);

        EXPECT_EQ(outcome.result, EResult::HANDLED) << size;
        EXPECT_TRUE(outcome.reply == request) << size;
        EXPECT_EQ(outcome.error, "");
    }
}

/// Calls that nobody waits for, sent from a thread of their own, on which their answers are counted, too.
class Flood {
public:
    Flood(int calls, std::size_t size) : m_calls(calls), m_thread([this, size] { Run(size); }) {}
    ~Flood() { m_thread.join(); }
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

    bool IsAnswered() const { return served + refused == m_calls; }

    std::atomic<int> served{0};
    std::atomic<int> refused{0};

private:
    void Run(std::size_t size) {
        const base::GMainContextPtr context(g_main_context_new());
        g_main_context_push_thread_default(context.get());
        const base::GObjectPtr<GDBusConnection> connection = ConnectTo(kSystemBus);
        for (int call = 0; call < m_calls; ++call) {
            g_dbus_connection_call(connection.get(), test::kDaemonName, test::kDaemonPath, test::kNative,
                                   "Call", Arguments(test::kEcho, size), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                                   nullptr, Answered, this);
        }
        while (!IsAnswered()) {
            g_main_context_iteration(context.get(), TRUE);
        }
        g_main_context_pop_thread_default(context.get());
    }
    static void Answered(GObject* source, GAsyncResult* result, gpointer self) {
        base::GErrorPtr error;
        const base::GVariantPtr reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, base::OutError(error)));
        const base::GStringPtr name(error != nullptr ? g_dbus_error_get_remote_error(error.get()) : nullptr);
        EXPECT_STREQ(name.get(), reply != nullptr ? nullptr : "org.zol.Error.TooManyCalls");
        auto* flood = static_cast<Flood*>(self);
        ++(reply != nullptr ? flood->served : flood->refused);
    }

    const int m_calls;
    std::thread m_thread;
};

TEST_F(IpcCall, WhoWaitsForNoAnswersFillsNeitherTheMemoryNorTheOthersTime) {
    for (int round = 0; round < 2; ++round) {
        Flood many(100, 10);
        // Nothing is served meanwhile: the rest is refused as it arrives.
        EXPECT_TRUE(Eventually([&] { return many.refused == 100 - 64; }));
        EXPECT_EQ(CallOnce(test::kEcho, {1}).result, EResult::HANDLED);
        EXPECT_TRUE(ServeUntil([&] { return many.IsAnswered(); }));
        EXPECT_EQ(many.served, 64);
    }
    Flood large(5, 15 * kMiB);
    EXPECT_TRUE(Eventually([&] { return large.refused == 1; }));
    EXPECT_TRUE(ServeUntil([&] { return large.IsAnswered(); }));
    EXPECT_EQ(large.served, 4);
}

TEST_F(IpcCall, AFunctionCodeWithoutHandlerIsRefused) {
    const Outcome outcome = CallOnce(5, {1, 2, 3});

    EXPECT_EQ(outcome.result, EResult::REFUSED);
    EXPECT_TRUE(outcome.reply.empty());
    EXPECT_THAT(outcome.error, HasSubstr("function code 5"));
}

TEST_F(IpcCall, ARefusingHandlerLosesItsReply) {
    m_server->RegisterNativeCall(9, [](const Bytes&, Bytes& out) {
        out = {1, 2, 3};
        return false;
    });

    const Outcome outcome = CallOnce(9, {1});

    EXPECT_EQ(outcome.result, EResult::REFUSED);
    EXPECT_TRUE(outcome.reply.empty());
}

TEST_F(IpcCall, AnEmptyHandlerRefuses) {
    m_server->RegisterNativeCall(test::kEcho, nullptr);

    EXPECT_EQ(CallOnce(test::kEcho, {1}).result, EResult::REFUSED);
}

TEST_F(IpcCall, ALaterHandlerReplacesAnEarlierOne) {
    m_server->RegisterNativeCall(test::kEcho, [](const Bytes&, Bytes& out) {
        out = {42};
        return true;
    });

    EXPECT_EQ(CallOnce(test::kEcho, {1}).reply, Bytes{42});
}

TEST_F(IpcCall, HandlersMayBeRegisteredFromAnyThreadWhileCallsRun) {
    std::atomic<bool> stop{false};
    std::thread registrar([&] {
        for (int code = 100; !stop; code = code < 200 ? code + 1 : 100) {
            m_server->RegisterNativeCall(code, [](const Bytes&, Bytes&) { return true; });
        }
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(CallOnce(test::kEcho, {1}).result, EResult::HANDLED);
    }
    stop = true;
    registrar.join();
}

TEST_F(IpcCall, TheRequestLimitItselfIsStillServed) {
    m_server->RegisterNativeCall(9, [](const Bytes& in, Bytes& out) {
        out = {static_cast<unsigned char>(in.size() == 16 * kMiB)};
        return true;
    });

    EXPECT_EQ(CallOnce(9, Bytes(16 * kMiB)).reply, Bytes{1});
}

TEST_F(IpcCall, AByteOverTheLimitIsRefusedByTheServer) {
    test::Peer peer;
    bool reached = false;
    m_server->RegisterNativeCall(9, [&](const Bytes&, Bytes&) { return reached = true; });

    EXPECT_EQ(peer.Call("Call", Arguments(9, 16 * kMiB + 1)), "org.zol.Error.TooLarge");
    EXPECT_FALSE(reached);
    EXPECT_EQ(peer.Call("Call", Arguments(9, 3)), "");
    EXPECT_TRUE(reached);
}

TEST_F(IpcCall, AByteOverTheLimitIsRefusedByTheClientBeforeTheBusCutsItOff) {
    const Outcome outcome = CallOnce(test::kEcho, Bytes(16 * kMiB + 1));

    EXPECT_EQ(outcome.result, EResult::FAILED);
    EXPECT_THAT(outcome.error, HasSubstr("org.zol.Error.TooLarge"));
}

TEST_F(IpcCall, AReplyOverTheLimitBecomesAnError) {
    m_server->RegisterNativeCall(9, [](const Bytes&, Bytes& out) {
        out.resize(16 * kMiB + 1);
        return true;
    });

    const Outcome outcome = CallOnce(9, {1});

    EXPECT_EQ(outcome.result, EResult::FAILED);
    EXPECT_THAT(outcome.error, HasSubstr("org.zol.Error.TooLarge"));
}

TEST_F(IpcCall, AnExceptionBecomesAnErrorAndOneLogLineAndTheServerLivesOn) {
    m_server->RegisterNativeCall(
        9, [](const Bytes&, Bytes&) -> bool { throw std::runtime_error("input stream error"); });

    const Outcome outcome = CallOnce(9, {1});

    EXPECT_EQ(outcome.result, EResult::FAILED);
    EXPECT_EQ(outcome.error, "org.zol.Error.Failed: input stream error");
    EXPECT_EQ(fakes::dlog::Count("the handler of function code 9 failed: input stream error"), 1);
    const fakes::LogLine line = fakes::dlog::Find("the handler of function code 9");
    EXPECT_EQ(line.priority, DLOG_PRIORITY_ERROR);
    EXPECT_EQ(line.buffer, DLOG_BUFFER_MAIN);
    EXPECT_EQ(line.tag, "ZOLMAKER");
    EXPECT_EQ(CallOnce(test::kEcho, {1}).result, EResult::HANDLED);
}

TEST_F(IpcCall, AnExceptionOfAnyTypeAndTextReachesTheCaller) {
    const std::pair<void (*)(), const char*> rows[] = {
        {[] { throw 17; }, "org.zol.Error.Failed: "},
        {[] { throw std::runtime_error("x\xff\xfey"); }, "org.zol.Error.Failed: x"}};
    for (const auto& [raise, error] : rows) {
        m_server->RegisterNativeCall(9, [raise = raise](const Bytes&, Bytes&) -> bool {
            raise();
            return true;
        });

        const Outcome outcome = CallOnce(9, {1});

        EXPECT_EQ(outcome.result, EResult::FAILED);
        EXPECT_THAT(outcome.error, testing::StartsWith(error));
    }
    EXPECT_EQ(CallOnce(test::kEcho, {1}).result, EResult::HANDLED);
}

TEST_F(IpcCall, ACallWithTheWrongTypesIsRefusedByTheBusLayer) {
    test::Peer peer;

    EXPECT_EQ(peer.Call("Call", g_variant_new("(s)", "policy")), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(peer.Call("Subscribe", g_variant_new("(s)", "no path")),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(peer.Call("Destroy", nullptr), "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(IpcCall, AHandlerThatServesTheMainContextServesOtherCallsMeanwhile) {
    m_server->RegisterNativeCall(9, [](const Bytes&, Bytes& out) {
        const Outcome inner = CallOnce(test::kEcho, {3});
        out = inner.reply;
        return inner.result == EResult::HANDLED;
    });

    const Outcome outcome = CallOnce(9, {1});

    EXPECT_EQ(outcome.result, EResult::HANDLED);
    EXPECT_EQ(outcome.reply, Bytes{3});
}

TEST_F(IpcCall, ACallThatIsNotAnsweredInTimeIsUnreachable) {
    Bytes reply;
    zol::TCDbusClient client(false);

    // Nobody serves the main context.
    EXPECT_EQ(client.Call(test::kEcho, {1}, reply, 50), EResult::UNREACHABLE);

    EXPECT_NE(client.LastError(), "");
}

TEST_F(IpcCall, OneClientMakesManyCalls) {
    test::ServeWhile([] {
        zol::TCDbusClient client(false);
        for (unsigned char i = 0; i < 50; ++i) {
            Bytes reply = {9, 9, 9};
            EXPECT_EQ(client.Call(test::kEcho, {i}, reply, -1), EResult::HANDLED);
            EXPECT_EQ(reply, Bytes{i});
        }
    });
}

/// Another process, so that what it holds does not count here.
int SendRequest(const child::Arguments& arguments) {
    Bytes reply;
    zol::TCDbusClient client(false);
    const Bytes request(std::stoul(arguments.at(0)));
    return client.Call(test::kEcho, request, reply, 60000) == EResult::HANDLED ? 0 : 1;
}

const child::Program kSendRequest("send-request", SendRequest);

std::size_t BytesInUse() {
    const struct mallinfo2 now = mallinfo2();
    return now.uordblks + now.hblkhd;
}

// The connection itself keeps the buffer that it read the message into.
TEST_F(IpcCall, WhileARequestIsServedItsMessageIsGone) {
    constexpr std::size_t kSize = 8 * kMiB;
    const std::size_t before = BytesInUse();
    m_server->RegisterNativeCall(test::kEcho, [&](const Bytes& request, Bytes& /*reply*/) {
        // GDBus's own thread may be about to let go of the message.
        return request.size() == kSize &&
               Eventually([&] { return BytesInUse() < before + 2 * kSize + kSize / 2; });
    });

    child::Process client("send-request", {std::to_string(kSize)});
    int status = -1;
    test::ServeWhile([&] { status = client.Wait(); });

    EXPECT_EQ(status, 0);
}

}  // namespace
