#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "Logging.h"
#include "log_fixture.h"

namespace {

class LogConfiguration : public RuntimeLog {
protected:
    static void Load(const std::string& content) {
        Configure(content);
        Initialize();
    }
    static bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }
};

TEST_F(LogConfiguration, WithoutAFileErrorDebugAndGeneralLinesGoToThePlatformLog) {
    Initialize();

    EXPECT_EQ(g_logType, 11U);
    EXPECT_EQ(g_logWay, LOG_WAY_DLOG);
    EXPECT_EQ(g_ipListIdx, 0);
    EXPECT_EQ(g_sockfd, -1);
}

TEST_F(LogConfiguration, PrintFollowedByAnEmptyLineGivesThePlatformLog) {
    Load("PRINT\n\nZ:E\n");
    EXPECT_EQ(g_logWay, LOG_WAY_DLOG);
}

TEST_F(LogConfiguration, TheLastWayWins) {
    Load("DLOG\nUDP\nPRINT\nZ:E\n");
    EXPECT_EQ(g_logWay, LOG_WAY_PRINT);
    EXPECT_EQ(g_logType, 1U);
}

TEST_F(LogConfiguration, UdpWithAnAddressAndThreeTypes) {
    Load("UDP\n10.0.0.2\nZ:EDI\n");

    EXPECT_EQ(g_logWay, LOG_WAY_UDP);
    EXPECT_EQ(g_logType, 7U);
    ASSERT_EQ(g_ipListIdx, 1);
    EXPECT_STREQ(g_ipList[0], "10.0.0.2");
    EXPECT_EQ(g_ipList[1], nullptr);
    EXPECT_GE(g_sockfd, 0);
}

TEST_F(LogConfiguration, AWayWithAnAddressBehindItIsAnAddress) {
    Load("UDP 10.0.0.2\nUDP 10.20.30.40\nZ:E\n");

    EXPECT_EQ(g_logWay, LOG_WAY_DLOG);
    ASSERT_EQ(g_ipListIdx, 2);
    EXPECT_STREQ(g_ipList[0], "UDP 10.0.0.2");
}

TEST_F(LogConfiguration, AnAddressKeepsItsFirstFifteenCharacters) {
    Load("123.123.123.12345\n");
    EXPECT_STREQ(g_ipList[0], "123.123.123.123");
}

TEST_F(LogConfiguration, ALineEndsAtItsFirstLowerCaseR) {
    Load("deliver.1\n10.0.0.2r5\nZ:ErDIG\n");

    ASSERT_EQ(g_ipListIdx, 1) << "\"delive\" holds no dot";
    EXPECT_STREQ(g_ipList[0], "10.0.0.2");
    EXPECT_EQ(g_logType, 1U);
}

TEST_F(LogConfiguration, ALetterThatStandsTwiceIsAddedTwice) {
    Load("Z:EE\n");
    EXPECT_EQ(g_logType, 2U);
}

TEST_F(LogConfiguration, AModuleLineOfAnotherModuleIsIgnored) {
    Load("X:E\n");
    EXPECT_EQ(g_logType, 11U) << "nothing was set";

    Finalize();
    Load("X:E\nZ:I\n");
    EXPECT_EQ(g_logType, 4U);
}

TEST_F(LogConfiguration, AStarMatchesEveryModule) {
    Load("*:E\n");
    EXPECT_EQ(g_logType, 1U);
}

TEST_F(LogConfiguration, AStarForTheTypesSetsAllFourAndEndsTheReading) {
    Load("DLOG\nZ:*E\nPRINT\n");
    EXPECT_EQ(g_logType, 15U);
    EXPECT_EQ(g_logWay, LOG_WAY_DLOG);
}

TEST_F(LogConfiguration, LinesBehindAMatchingModuleLineAreNotRead) {
    Load("Z:EG\nPRINT\n10.0.0.2\nZ:D\n");
    EXPECT_EQ(g_logType, 9U);
    EXPECT_EQ(g_logWay, LOG_WAY_DLOG);
    EXPECT_EQ(g_ipListIdx, 0);
}

TEST_F(LogConfiguration, UnknownTypeLettersAreSkipped) {
    Load("Z:xEyIz\n");
    EXPECT_EQ(g_logType, 5U);
}

TEST_F(LogConfiguration, AModuleLineWithoutTypesEndsTheReadingAndLeavesTheDefaults) {
    Load("PRINT\nZ:\nUDP\n");
    EXPECT_EQ(g_logType, 11U);
    EXPECT_EQ(g_logWay, LOG_WAY_DLOG);
}

TEST_F(LogConfiguration, UdpWithoutTypesEndsWithThePlatformLogAndAnOpenSocket) {
    Load("UDP\n10.0.0.2\n");
    EXPECT_EQ(g_logWay, LOG_WAY_DLOG);
    EXPECT_EQ(g_logType, 11U);
    EXPECT_GE(g_sockfd, 0);
}

TEST_F(LogConfiguration, MoreAddressesThanSlotsAreIgnored) {
    std::ostringstream file;
    for (int i = 0; i < kMaxLogAddresses + 10; ++i) {
        file << "10.0." << i / 100 << "." << i % 100 << "\n";
    }
    Load(file.str());

    EXPECT_EQ(g_ipListIdx, kMaxLogAddresses);
    EXPECT_STREQ(g_ipList[kMaxLogAddresses - 1], "10.0.2.55");
}

TEST_F(LogConfiguration, AnEndlessLineIsReadInPieces) {
    Load(std::string(1000, 'x') + "\nZ:E\n");
    EXPECT_EQ(g_logType, 1U);
}

TEST_F(LogConfiguration, AFolderInItsPlaceIsAsGoodAsNoFile) {
    fakes::MakeDeviceFolder("/usr/bin/gst_log.conf");
    Initialize();
    EXPECT_EQ(g_logType, 11U);
}

TEST_F(LogConfiguration, FinalizeClosesTheSocketOfLinesThatGoOutByUdp) {
    Load("UDP\n10.0.0.2\nZ:E\n");
    const int socket = g_sockfd;
    ASSERT_TRUE(IsOpen(socket));

    Finalize();

    EXPECT_EQ(g_sockfd, -1);
    EXPECT_FALSE(IsOpen(socket));
}

TEST_F(LogConfiguration, FinalizeLeavesASocketOpenThatNoLineGoesOutBy) {
    Load("UDP\n10.0.0.2\n");
    const int socket = g_sockfd;
    ASSERT_TRUE(IsOpen(socket));

    Finalize();

    EXPECT_EQ(g_sockfd, -1);
    EXPECT_TRUE(IsOpen(socket));
    close(socket);
}

TEST_F(LogConfiguration, FinalizeForgetsTheConfiguration) {
    Load("PRINT\nZ:E\n");
    Finalize();
    EXPECT_FALSE(g_loaded);
    EXPECT_EQ(g_sockfd, -1);

    Configure("DLOG\nZ:EI\n");
    _PRINT(LOG_TYPE_I, "afresh");
    EXPECT_TRUE(g_loaded);
    EXPECT_EQ(g_logType, 5U);
    EXPECT_TRUE(fakes::dlog::Has("afresh"));
}

}  // namespace
