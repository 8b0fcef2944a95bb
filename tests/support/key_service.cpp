#include "key_service.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "waiting.h"

base::UniqueFd RawConnection(const std::string& root) {
    base::UniqueFd connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (root + "/run/zol/vconf.sock").copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        connection.Reset();
    }
    return connection;
}

namespace {

pid_t ServerOf(const base::UniqueFd& connection) {
    ucred server{};
    socklen_t size = sizeof(server);
    return getsockopt(connection.Get(), SOL_SOCKET, SO_PEERCRED, &server, &size) == 0 ? server.pid : 0;
}

std::string OwnRoot() {
    const char* const root = std::getenv("ZOL_ROOT");
    return root != nullptr ? root : "";
}

}  // namespace

KeyService::KeyService(const std::string& root) : m_root(root.empty() ? OwnRoot() : root) {
    // This process may have used a store, and started a service, before.
    Kill();
    for (const char* folder : {"/var/lib/zol", "/run/zol"}) {
        std::filesystem::remove_all(m_root + folder);
    }
    Start();
}

KeyService::~KeyService() {
    Kill();
}

void KeyService::Start(const std::vector<std::string>& options) {
    m_process.emplace(child::Process::Of("zol_vconfd", options, m_root));
    EXPECT_TRUE(Eventually([this] { return static_cast<bool>(RawConnection(m_root)); }));
}

void KeyService::Kill() {
    while (const base::UniqueFd connection = RawConnection(m_root)) {
        kill(ServerOf(connection), SIGKILL);
        // One that a client has just started may not have its own id yet: then it is asked again.
        pollfd gone{connection.Get(), POLLIN, 0};
        static_cast<void>(poll(&gone, 1, 100));
    }
    m_process.reset();
}

pid_t KeyService::Pid() const {
    return ServerOf(RawConnection(m_root));
}

int KeyService::WaitForEnd() {
    const int status = m_process->Wait();
    m_process.reset();
    return status;
}
