/// The daemon as it is composed, on the fakes of the platform.
#include <glib.h>
#include <csignal>
#include <cstdlib>
#include <string>

#include "TCDebug.h"
#include "device_test.h"
#include "fake_device_power.h"
#include "fake_diagnostics.h"
#include "fake_vconf.h"
#include "policy_manager_fixture.h"
#include "zol_daemon.h"

namespace {

class Composition : public DeviceTest {
protected:
    Composition() { setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1); }
    ~Composition() override {
        TCDebug::EnableFileLog(false);
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }

    /// The daemon's whole life; `whileItRuns` is called by its main loop, before a signal ends it.
    template <typename Function>
    static int Live(Function whileItRuns) {
        const auto callback = [](gpointer data) -> gboolean {
            (*static_cast<Function*>(data))();
            raise(SIGTERM);
            return G_SOURCE_REMOVE;
        };
        g_idle_add(callback, &whileItRuns);
        return zol_daemon::main();
    }
};

TEST_F(Composition, KeepsTheDebugLogFromItsStartToItsEnd) {
    EXPECT_EQ(Live([] {}), 0);

    const std::string log = fakes::ReadDeviceFile(ZOL_PATH_DEBUG_LOG);
    EXPECT_NE(log.find(" Dbus server created. Testmode: 0\n"), std::string::npos) << log;
    EXPECT_NE(log.find("zol_daemon main("), std::string::npos) << log;
}

TEST_F(Composition, AppliesTheStoredPolicyAndHearsOfThePowerWhileItRuns) {
    fakes::WriteDeviceFile(ZOL_PATH_POLICY, PolicyFor("db/watched"));
    int registrations = 0;
    bool isRunning = false;
    bool isSubscribed = false;

    EXPECT_EQ(Live([&] {
                  registrations = fakes::vconf::Registrations("db/watched");
                  isRunning = fakes::vconf::GetInt(kRunningKey) == 1;
                  isSubscribed = fakes::device_power::AwaitSubscribed();
              }),
              0);

    EXPECT_EQ(registrations, 1);
    EXPECT_TRUE(isRunning);
    EXPECT_TRUE(isSubscribed);
    EXPECT_EQ(fakes::vconf::Registrations("db/watched"), 0) << "its watches end with it";
    EXPECT_EQ(fakes::device_power::Calls().back(), "unsubscribe_poweroff");
}

TEST_F(Composition, TheTestRecorderListensToTheEndOfTheProcess) {
    fakes::WriteDeviceFile(ZOL_PATH_DEBUG_MARKER, "");

    EXPECT_EQ(Live([] {}), 0);

    EXPECT_TRUE(fakes::keys::HandlerRegistered());
    EXPECT_EQ(fakes::keys::OpenServices(), 1);
}

}  // namespace
