#include "device.h"

#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <thread>

#include "HandOverQueue.h"
#include "HitNews.h"
#include "PolicyService.h"
#include "PolicyTasks.h"
#include "ZOLBtPairMonitor.h"
#include "ZOLInformationStorage.h"
#include "ZOLMonitorInformation.h"
#include "ZOLMonitorManager.h"
#include "ZOLPolicyManager.h"
#include "ZOLPowerUtils.h"
#include "ZOLShiftedClock.h"
#include "base/folders.h"
#include "base/subscription.h"
#include "device_paths.h"
#include "fake_bt_hid.h"
#include "fake_clock.h"
#include "fake_device_power.h"
#include "fake_dlog.h"
#include "fake_vconf.h"
#include "fake_was.h"
#include "fakes.h"
#include "hits.h"
#include "timers.h"
#include "vconf.h"

namespace policytest {
namespace {

using std::chrono::nanoseconds;

// What identifies the device in reports.
constexpr const char* kHardwareId = "SIMULATED-TV1";
constexpr const char* kHardwareIdKey = "db/comss/hwduid";
constexpr const char* kUniqueId = "00000000-0000-0000-0000-000000000001";
constexpr const char* kLifeCycleId = "0000000001";
constexpr const char* kAddress = "00:00:00:00:00:01";

/// Lasts until power-off.
constexpr const char* kMemoryPrefix = "memory/";

/// Sleeps in its own main loop, which the fake of its notifications waits for.
constexpr int kPowerThreads = 1;
constexpr int kReason = 0;

/// Threads that there are without the daemon. A sanitizer begins one of its own together with the first of
/// the program's.
int CountOtherThreads() {
    pid_t first = 0;
    std::thread([&first] { first = gettid(); }).join();
    while (tgkill(getpid(), first, 0) == 0) {
        std::this_thread::yield();
    }
    return fakes::clock::CountThreads() + kPowerThreads;
}

/// Whether it is the folder of a report, and not something that a scenario has set.
bool IsReport(const std::string& path) {
    const std::string root = std::string(ZOL_PATH_REPORT_ROOT) + "/";
    const std::string name = path.rfind(root, 0) == 0 ? path.substr(root.size()) : "";
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

}  // namespace

/// In the order of construction, as zol_daemon has it; without what only diagnoses.
struct Device::Daemon {
    Daemon() {
        clock.LoadTimeShift();
        manager = std::make_unique<zol::TCPolicyManager>(clock, &server, nullptr);
        zol::TCInformationStorage::Instance()->Initialize(manager.get(), &server);
        power = std::make_unique<zol::ZOLPowerUtils>(manager.get());
        service = std::make_unique<zol::PolicyService>(server, *manager);
    }
    ~Daemon() { zol::TCInformationStorage::Instance()->Initialize(nullptr, nullptr); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    /// Of what is hit before the service listens.
    base::Subscription firstHits = zol::HitNews::Listen(KeepHit);
    HitServer server;
    zol::TCShiftedClock clock;
    std::unique_ptr<zol::TCPolicyManager> manager;
    std::unique_ptr<zol::ZOLPowerUtils> power;
    std::unique_ptr<zol::PolicyService> service;
};

Device::Device(std::int64_t start) : m_otherThreads(CountOtherThreads()) {
    fakes::Reset();
    fakes::clock::SetWall(start);
    fakes::WriteDeviceFile(ZOL_PATH_UNIQUE_ID, kUniqueId);
    fakes::WriteDeviceFile(ZOL_PATH_LIFE_CYCLE_ID, kLifeCycleId);
    fakes::WriteDeviceFile(ZOL_PATH_RELEASE_MARKER, "");
    fakes::vconf::SetString(kHardwareIdKey, kHardwareId);
}

Device::~Device() = default;

void Device::Start() {
    m_daemon = std::make_unique<Daemon>();
    if (!fakes::device_power::AwaitSubscribed()) {
        throw std::runtime_error("the daemon does not listen to the power");
    }
    Rest();
}

void Device::Stop() {
    m_daemon.reset();
}

void Device::SwitchOff(std::chrono::seconds time) {
    static_cast<void>(fakes::device_power::PowerOff(kReason));
    Rest();
    Stop();
    for (const std::string& key : m_memoryKeys) {
        fakes::vconf::Unset(key);
    }
    m_memoryKeys.clear();
    fakes::clock::Advance(time);
    Start();
}

void Device::StandBy(std::chrono::seconds time) {
    static_cast<void>(fakes::device_power::PowerOff(kReason));
    Rest();
    // The steady clock stands still while the device sleeps, and nobody wakes for what passes.
    fakes::clock::SetWall(Now() + time.count());
    static_cast<void>(fakes::device_power::WakeUp(kReason));
    Rest();
}

zol::TSPolicyAnswer Device::SetPolicy(const std::string& document) {
    zol::TSPolicyAnswer answer = m_daemon->service->SetPolicy(document);
    Rest();
    return answer;
}

zol::TSPolicyState Device::State() {
    return m_daemon->service->State();
}

std::vector<zol::TSPolicyRule> Device::Explain() {
    return m_daemon->service->Explain("");
}

std::vector<Device::Count> Device::Counts() const {
    std::vector<Count> counts;
    for (const std::unique_ptr<zol::TCPolicyTasks>& tasks : m_daemon->manager->Sets()) {
        if (tasks->Monitors() == nullptr) {
            continue;
        }
        for (const TCMonitorManager::Running& monitor : tasks->Monitors()->Monitors()) {
            const TCMonitorInformation& rule = *monitor.rule;
            counts.push_back({monitor.id.empty() ? kPairing : monitor.id, rule.GetCurrentRepetition(),
                              rule.GetPolicyRepetition(), rule.GetFirstCallTime()});
        }
    }
    return counts;
}

void Device::SetKey(const std::string& key, const KeyValue& value) {
    if (key.rfind(kMemoryPrefix, 0) == 0) {
        m_memoryKeys.insert(key);
    }
    if (const auto* flag = std::get_if<bool>(&value)) {
        fakes::vconf::SetBool(key, *flag);
    } else if (const auto* number = std::get_if<int>(&value)) {
        fakes::vconf::SetInt(key, *number);
    } else if (const auto* text = std::get_if<std::string>(&value)) {
        fakes::vconf::SetString(key, *text);
    } else {
        fakes::vconf::Unset(key);
    }
    if (m_daemon != nullptr) {
        Rest();
    }
}

KeyValue Device::Key(const std::string& key) {
    int number = 0;
    if (vconf_get_int(key.c_str(), &number) == 0) {
        return number;
    }
    if (vconf_get_bool(key.c_str(), &number) == 0) {
        return number != 0;
    }
    return fakes::vconf::Exists(key) ? KeyValue(fakes::vconf::GetString(key)) : KeyValue();
}

void Device::Connect(bool isConnected, const std::string& address) {
    constexpr const char* kKey = TCBtPairMonitor::KEY_LAST_CONNECTED;
    const std::string known = fakes::vconf::GetString(kKey, kAddress);
    const std::string& remote = address.empty() ? known : address;
    // As the platform has it: published before it is told, and left alone by a disconnect.
    if (isConnected && (remote != known || !fakes::vconf::Exists(kKey))) {
        fakes::vconf::SetString(kKey, remote);
    }
    fakes::bt_hid::Connect(isConnected, remote);
    Rest();
}

void Device::Install(const std::string& id, bool isInstalled) {
    fakes::was::Install(id, isInstalled ? WAS_NOTIFY_INSTALL_COMPLETED : WAS_NOTIFY_UNINSTALLED);
    Rest();
}

void Device::Pass(nanoseconds time) {
    while (time > nanoseconds(0)) {
        nanoseconds step = std::min(time, fakes::clock::UntilNextWake());
        step = std::min(step, UntilNextTimer().value_or(step));
        fakes::clock::Advance(step);
        Rest();
        time -= step;
    }
}

void Device::SetClock(std::int64_t seconds) {
    fakes::clock::SetWall(seconds);
    Rest();
}

std::int64_t Device::Now() {
    return fakes::clock::WallSeconds();
}

void Device::Rest() {
    bool isBusy = true;
    while (isBusy) {
        if (!fakes::clock::AwaitRest(m_otherThreads)) {
            throw std::runtime_error("the daemon does not come to rest");
        }
        isBusy = g_main_context_iteration(nullptr, FALSE) != FALSE;
        isBusy = fakes::vconf::Deliver() || isBusy;
        isBusy = Collect() || isBusy;
    }
    fakes::dlog::Clear();
}

bool Device::Collect() {
    const std::string path = fakes::vconf::GetString(zol::HandOverQueue::KEY, "");
    if (!IsReport(path)) {
        return false;
    }
    static_cast<void>(base::RemoveTree(AT_FDCWD, (fakes::Root() + path).c_str()));
    fakes::vconf::SetString(zol::HandOverQueue::KEY, "");
    return true;
}

}  // namespace policytest
