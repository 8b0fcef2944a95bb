#include "private_bus.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "base/bus_link.h"
#include "files.h"

namespace {

constexpr const char* kAllowEverything =
    "<policy context='default'><allow user='*'/><allow own='*'/><allow send_destination='*'/>"
    "<allow receive_sender='*'/></policy>";

}  // namespace

PrivateBus::PrivateBus(const char* variable, const std::string& policy)
    : m_address("unix:path=" + m_folder.Path() + "/bus") {
    setenv(variable, m_address.c_str(), 1);
    WriteFile(m_folder.Path() + "/bus.conf",
              "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN'\n"
              " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>\n"
              "<busconfig><listen>" +
                  m_address + "</listen><auth>EXTERNAL</auth>" +
                  (policy.empty() ? kAllowEverything : policy) + "</busconfig>\n");
}

void PrivateBus::Start() {
    // When a test crashes its bus goes, too.
    const std::string command =
        "exec setpriv --pdeathsig KILL dbus-daemon --nofork --nopidfile --nosyslog --print-address "
        "--config-file=bus.conf 2>bus.log";
    m_daemon.emplace(child::Process::Run({"sh", "-c", "cd " + m_folder.Path() + " && " + command}, ""));
    if (m_daemon->ReadLine().empty()) {
        throw std::runtime_error("dbus-daemon did not start: " + ReadFile(m_folder.Path() + "/bus.log"));
    }
}

void PrivateBus::Stop() {
    m_daemon.reset();
}

void PrivateBus::Pause() {
    m_daemon->Signal(SIGSTOP);
}

void PrivateBus::Resume() {
    m_daemon->Signal(SIGCONT);
}

base::GObjectPtr<GDBusConnection> ConnectTo(const char* variable) {
    base::GErrorPtr error;
    base::GObjectPtr<GDBusConnection> connection(g_dbus_connection_new_for_address_sync(
        std::getenv(variable), base::kBusConnectionFlags, nullptr, nullptr, base::OutError(error)));
    if (connection == nullptr) {
        throw std::runtime_error(error->message);
    }
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    return connection;
}
