#include "base/bus_caller.h"

#include <gtest/gtest.h>

#include <string>

#include "private_bus.h"

namespace {

using base::BusCaller;

constexpr base::BusObject kBus{"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"};
constexpr int kTimeoutMs = 60000;

TEST(BusCaller, TellsAnAnswerFromAnErrorAndFromNobody) {
    PrivateBus bus;
    bus.Start();
    BusCaller caller(G_BUS_TYPE_SYSTEM);
    base::GVariantPtr answer;

    EXPECT_EQ(
        caller.Call(kBus, "NameHasOwner", g_variant_new("(s)", "org.zol.None"), "(b)", kTimeoutMs, answer),
        BusCaller::EEnd::ANSWERED);
    EXPECT_EQ(base::GStringPtr(g_variant_print(answer.get(), FALSE)).get(), std::string("(false,)"));
    EXPECT_EQ(caller.LastError(), "");

    EXPECT_EQ(caller.Call(kBus, "NoSuch", g_variant_new("()"), "()", kTimeoutMs, answer),
              BusCaller::EEnd::FAILED);
    EXPECT_EQ(caller.LastError().rfind("org.freedesktop.DBus.Error.UnknownMethod: ", 0), 0U)
        << caller.LastError();
    EXPECT_EQ(answer, nullptr);

    EXPECT_EQ(caller.Call(kBus, "GetId", g_variant_new("()"), "(u)", kTimeoutMs, answer),
              BusCaller::EEnd::FAILED)
        << "an answer of another type";

    EXPECT_EQ(caller.Call({"org.zol.None", "/", "org.zol.None"}, "Call", g_variant_new("()"), "()",
                          kTimeoutMs, answer),
              BusCaller::EEnd::UNREACHABLE);
    bus.Stop();
    EXPECT_EQ(caller.Call(kBus, "GetId", g_variant_new("()"), "(s)", kTimeoutMs, answer),
              BusCaller::EEnd::UNREACHABLE);
    EXPECT_NE(caller.LastError(), "");
    bus.Start();
    EXPECT_EQ(caller.Call(kBus, "GetId", g_variant_new("()"), "(s)", kTimeoutMs, answer),
              BusCaller::EEnd::ANSWERED);
}

}  // namespace
