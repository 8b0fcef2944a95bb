#include "service_watchdog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

#include "base/unique_fd.h"
#include "supervisor.h"
#include "temporary_folder.h"
#include "variable.h"

namespace {

class ServiceWatchdog : public testing::Test {
protected:
    ServiceWatchdog() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_path.c_str(), sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }

    std::string Received() {
        std::array<char, 64> text{};
        const ssize_t length = recv(m_socket.Get(), text.data(), text.size(), MSG_DONTWAIT);
        return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : "";
    }

    TemporaryFolder m_folder;
    const std::string m_path = m_folder.Path() + "/notify";
    base::UniqueFd m_socket{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    Variable m_address{"NOTIFY_SOCKET", m_path.c_str()};
    Variable m_interval{"WATCHDOG_USEC", "60000000"};
    Variable m_process{"WATCHDOG_PID", nullptr};
};

TEST_F(ServiceWatchdog, TheServiceManagerSaysHowLongItWaitsAndHearsOfLife) {
    EXPECT_EQ(service_watchdog_interval_us(), 60000000U);

    service_watchdog_alive();

    EXPECT_EQ(Received(), "WATCHDOG=1");
    service_watchdog_ready();
    EXPECT_EQ(Received(), "READY=1");
    service_watchdog_status("100 % idle");
    EXPECT_EQ(Received(), "STATUS=100 % idle");
}

TEST_F(ServiceWatchdog, NobodyWatchesAProcessThatWasNotAskedOrAnotherOne) {
    m_process.Set("1");
    EXPECT_EQ(service_watchdog_interval_us(), 0U);

    m_process.Set(nullptr);
    m_interval.Set("soon");
    EXPECT_EQ(service_watchdog_interval_us(), 0U);
    m_interval.Set(nullptr);
    EXPECT_EQ(service_watchdog_interval_us(), 0U);
}

TEST_F(ServiceWatchdog, TheServiceManagerMayHaveASocketInNoFolderOrNone) {
    const std::string name = "zol-test-" + std::to_string(getpid());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, name.size());
    const base::UniqueFd other{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    ASSERT_EQ(bind(other.Get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    m_address.Set(("@" + name).c_str());
    service_watchdog_ready();
    std::array<char, 64> text{};
    EXPECT_EQ(recv(other.Get(), text.data(), text.size(), MSG_DONTWAIT), 7);

    for (const std::string& nowhere : {std::string("relative"), std::string(), "/" + std::string(200, 'x')}) {
        m_address.Set(nowhere.c_str());
        service_watchdog_ready();
    }
    m_address.Set(nullptr);
    service_watchdog_ready();
    EXPECT_EQ(Received(), "");
}

TEST(HandedSockets, AreThoseOfThisProcessAndNoChildIsToldOfThem) {
    const std::string self = std::to_string(getpid());
    for (const auto& [process, count, expected] :
         {std::tuple(self.c_str(), "0", 0), std::tuple("1", "1", 0), std::tuple(self.c_str(), "none", 0)}) {
        const Variable pid("LISTEN_PID", process);
        const Variable number("LISTEN_FDS", count);
        EXPECT_EQ(platform::TakeHandedSockets(), expected) << process << " " << count;
        EXPECT_EQ(std::getenv("LISTEN_PID"), nullptr);
        EXPECT_EQ(std::getenv("LISTEN_FDS"), nullptr);
    }
}

}  // namespace
