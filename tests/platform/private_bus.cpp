#include "private_bus.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <thread>

#include "device_path.h"
#include "device_paths.h"

namespace {

/// A device root for the whole test program, in place before the first test asks for a device path.
class DeviceRoot : public testing::Environment {
public:
    void SetUp() override {
        m_folder.emplace();
        setenv("ZOL_ROOT", m_folder->Path().c_str(), 1);
    }
    void TearDown() override { m_folder.reset(); }

private:
    std::optional<TemporaryFolder> m_folder;
};

const testing::Environment* const g_root = testing::AddGlobalTestEnvironment(new DeviceRoot);

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

constexpr const char* kBusConfiguration = R"(<busconfig>
  <listen>unix:path=%PATH%</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

}  // namespace

std::string Environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool Eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

TemporaryFolder::TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zol-platform-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp");
    }
    m_path = pattern;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

PlatformLog::PlatformLog() : m_file(DevicePath(ZOL_PATH_LOG_DIR "/main.log")) {
    m_start = ReadFile(m_file).size();
}

int PlatformLog::Count(const std::string& part) const {
    const std::string text = ReadFile(m_file);
    int count = 0;
    for (std::size_t at = text.find(part, m_start); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

bool PlatformLog::WaitFor(const std::string& part, int times) const {
    return Eventually([&] { return Count(part) >= times; });
}

PrivateBus::PrivateBus(const char* variable) {
    std::string configuration = kBusConfiguration;
    const std::string socket = m_folder.Path() + "/bus";
    configuration.replace(configuration.find("%PATH%"), 6, socket);
    std::ofstream(m_folder.Path() + "/bus.conf") << configuration;
    setenv(variable, ("unix:path=" + socket).c_str(), 1);
}

PrivateBus::~PrivateBus() {
    Stop();
}

void PrivateBus::Start() {
    std::array<int, 2> ready{};
    if (pipe(ready.data()) != 0) {
        throw std::runtime_error("pipe");
    }
    const std::string configuration = "--config-file=" + m_folder.Path() + "/bus.conf";
    const std::string address = "--print-address=" + std::to_string(ready[1]);
    const std::array<const char*, 5> arguments = {"dbus-daemon", "--nofork", configuration.c_str(),
                                                  address.c_str(), nullptr};
    const int result = posix_spawnp(&m_daemon, arguments[0], nullptr, nullptr,
                                    const_cast<char**>(arguments.data()), environ);
    close(ready[1]);
    const base::UniqueFd reader(ready[0]);
    char byte = 0;
    if (result != 0 || read(reader.Get(), &byte, 1) != 1) {
        throw std::runtime_error("dbus-daemon");
    }
}

void PrivateBus::Stop() {
    if (m_daemon > 0) {
        kill(m_daemon, SIGTERM);
        waitpid(m_daemon, nullptr, 0);
        m_daemon = -1;
    }
}

FakeService::FakeService(std::string name, std::string path, std::string xml, Handler handler,
                         const char* bus)
    : m_address(Environment(bus)),
      m_name(std::move(name)),
      m_path(std::move(path)),
      m_xml(std::move(xml)),
      m_handler(std::move(handler)),
      m_thread("fake-service") {
    m_thread.Start([this] { Serve(); }, [] {});
}

FakeService::~FakeService() {
    m_thread.Stop();
    if (m_connection != nullptr) {
        g_dbus_connection_unregister_object(m_connection.get(), m_object);
        g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
    }
}

void FakeService::Serve() {
    static const GDBusInterfaceVTable table = {MethodCb, nullptr, nullptr, {}};
    base::GErrorPtr error;
    constexpr auto kFlags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    m_connection.reset(g_dbus_connection_new_for_address_sync(m_address.c_str(), kFlags, nullptr, nullptr,
                                                              base::OutError(error)));
    if (m_connection == nullptr) {
        throw std::runtime_error(base::ErrorText(error.get()));
    }
    g_dbus_connection_set_exit_on_close(m_connection.get(), FALSE);
    using NodeInfoPtr = std::unique_ptr<GDBusNodeInfo, base::FreeWith<g_dbus_node_info_unref>>;
    const NodeInfoPtr info(g_dbus_node_info_new_for_xml(m_xml.c_str(), base::OutError(error)));
    m_object = g_dbus_connection_register_object(m_connection.get(), m_path.c_str(), info->interfaces[0],
                                                 &table, this, nullptr, base::OutError(error));
    const base::GVariantPtr owned(
        g_dbus_connection_call_sync(m_connection.get(), "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                                    "RequestName", g_variant_new("(su)", m_name.c_str(), 4U), nullptr,
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, base::OutError(error)));
    if (owned == nullptr) {
        throw std::runtime_error(base::ErrorText(error.get()));
    }
}

void FakeService::MethodCb(GDBusConnection* /*connection*/, const char* /*sender*/, const char* path,
                           const char* /*interface*/, const char* method, GVariant* arguments,
                           GDBusMethodInvocation* invocation, gpointer data) {
    static_cast<FakeService*>(data)->m_handler(path, method, arguments, invocation);
}

void FakeService::Emit(const char* path, const char* interface, const char* signal, GVariant* arguments) {
    g_dbus_connection_emit_signal(m_connection.get(), nullptr, path, interface, signal, arguments, nullptr);
}
