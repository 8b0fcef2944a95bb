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

    fakes::MakeDeviceFolder("/usr/bin/gst_log.conf");
    Finalize();
    Initialize();
    EXPECT_EQ(g_logType, 11U) << "a folder is no file";
}

TEST_F(LogConfiguration, WaysAndTypesAreReadToTheFirstModuleLineThatMatches) {
    struct {
        const char* what;
        std::string file;
        unsigned way;
        unsigned types;
    } const cases[] = {
        {"an empty line behind PRINT gives the platform log", "PRINT\n\nZ:E\n", LOG_WAY_DLOG, 1},
        {"the last way wins", "DLOG\nUDP\nPRINT\nZ:E\n", LOG_WAY_PRINT, 1},
        {"a letter that stands twice is added twice", "Z:EE\n", LOG_WAY_DLOG, 2},
        {"another module's line is ignored, which sets nothing", "X:E\n", LOG_WAY_DLOG, 11},
        {"and the next one is read", "X:E\nZ:I\n", LOG_WAY_DLOG, 4},
        {"a star matches every module", "PRINT\n*:E\n", LOG_WAY_PRINT, 1},
        {"a star for the types sets all four and ends the reading", "DLOG\nZ:*E\nPRINT\n", LOG_WAY_DLOG, 15},
        {"lines behind a matching one are not read", "Z:EG\nPRINT\n10.0.0.2\nZ:D\n", LOG_WAY_DLOG, 9},
        {"unknown type letters are skipped", "Z:xEyIz\n", LOG_WAY_DLOG, 5},
        {"without types the reading ends and leaves the defaults", "PRINT\nZ:\nUDP\n", LOG_WAY_DLOG, 11},
        {"an endless line is read in pieces", std::string(1000, 'x') + "\nZ:E\n", LOG_WAY_DLOG, 1},
    };
    for (const auto& [what, file, way, types] : cases) {
        Finalize();
        Load(file);
        EXPECT_EQ(g_logWay, way) << what;
        EXPECT_EQ(g_logType, types) << what;
        EXPECT_EQ(g_ipListIdx, 0) << what;
    }
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

TEST_F(LogConfiguration, AWayWithAnAddressBehindItIsAnAddressOfFifteenCharacters) {
    Load("UDP 10.0.0.2\nUDP 10.20.30.4055\nZ:E\n");

    EXPECT_EQ(g_logWay, LOG_WAY_DLOG);
    ASSERT_EQ(g_ipListIdx, 2);
    EXPECT_STREQ(g_ipList[0], "UDP 10.0.0.2");
    EXPECT_STREQ(g_ipList[1], "UDP 10.20.30.40");
}

TEST_F(LogConfiguration, ALineEndsAtItsFirstLowerCaseR) {
    Load("deliver.1\n10.0.0.2r5\nZ:ErDIG\n");

    ASSERT_EQ(g_ipListIdx, 1) << "\"delive\" holds no dot";
    EXPECT_STREQ(g_ipList[0], "10.0.0.2");
    EXPECT_EQ(g_logType, 1U);
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

TEST_F(LogConfiguration, FinalizeClosesTheSocketOfLinesThatGoOutByUdp) {
    Load("UDP\n10.0.0.2\nZ:E\n");
    const int socket = g_sockfd;
    ASSERT_TRUE(IsOpen(socket));

    Finalize();

    EXPECT_EQ(g_sockfd, -1);
    EXPECT_FALSE(IsOpen(socket));
}

TEST_F(LogConfiguration, ASocketInThePlaceOfTheStandardInputIsOneLikeAnyOther) {
    const int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    Load("UDP\nnot.an.address\nZ:E\n");
    ASSERT_EQ(g_sockfd, STDIN_FILENO);

    SendDebugMsgs(LOG_WAY_UDP, LOG_TYPE_E, "goes out by it");
    EXPECT_EQ(g_sockfd, STDIN_FILENO);
    Finalize();

    EXPECT_FALSE(IsOpen(STDIN_FILENO));
    dup2(input, STDIN_FILENO);
    close(input);
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
