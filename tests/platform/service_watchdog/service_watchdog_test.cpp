#include "service_watchdog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include "base/unique_fd.h"
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
    m_interval.Set(nullptr);
    EXPECT_EQ(service_watchdog_interval_us(), 0U);
}

}  // namespace
