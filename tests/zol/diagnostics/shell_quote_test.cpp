#include "ShellQuote.h"

#include <gtest/gtest.h>

namespace {

TEST(ShellQuote, OrdinaryPathsStayAsTheyAre) {
    EXPECT_EQ(zol::ShellQuote("/media/usb-1/a_b.txt"), "/media/usb-1/a_b.txt");
}

TEST(ShellQuote, EverythingElseBecomesOneLiteralWord) {
    EXPECT_EQ(zol::ShellQuote(""), "''");
    EXPECT_EQ(zol::ShellQuote("a b"), "'a b'");
    EXPECT_EQ(zol::ShellQuote("a'b"), "'a'\\''b'");
    EXPECT_EQ(zol::ShellQuote("$(x)"), "'$(x)'");
    EXPECT_EQ(zol::ShellQuote("-rf"), "'-rf'");
}

}  // namespace
