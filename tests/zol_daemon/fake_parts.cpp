#include "fake_parts.h"

#include <glib-unix.h>
#include <glib.h>
#include <malloc.h>

#include <boost/thread/exceptions.hpp>
#include <cstring>
#include <functional>
#include <stdexcept>

#include "PolicyService.h"
#include "TCDbusServer.h"
#include "TCDebug.h"
#include "ZOLCVLogger.h"
#include "ZOLControlNative.h"
#include "ZOLInformationStorage.h"
#include "ZOLPolicyManager.h"
#include "ZOLPowerUtils.h"
#include "ZOLScheduler.h"
#include "ZOLShiftedClock.h"
#include "ZOLTestRecording.h"

namespace {

fake_parts::Plan g_plan;
std::vector<std::string> g_steps;

/// What the caught signals call, the latest at the end. The daemon never lets go of their data.
std::vector<std::function<void()>> g_signals;

void Step(const std::string& what) {
    g_steps.push_back(what);
    if (what == g_plan.signalAt) {
        g_signals.back()();
    }
}

void Come(const std::string& part) {
    if (g_plan.failing == part && g_plan.interrupt) {
        throw boost::thread_interrupted();
    }
    if (g_plan.failing == part) {
        throw std::runtime_error(part + " failed");
    }
    Step("+" + part);
}

}  // namespace

namespace fake_parts {

void Reset(const Plan& plan) {
    g_plan = plan;
    g_steps.clear();
}

const std::vector<std::string>& Steps() {
    return g_steps;
}

}  // namespace fake_parts

// These stand before the libraries', for the whole test program.

extern "C" int mallopt(int option, int value) noexcept {
    const char* const name = option == M_ARENA_MAX        ? "arenas "
                             : option == M_MMAP_THRESHOLD ? "mmap threshold "
                                                          : "unknown option ";
    Step(name + std::to_string(value));
    return option == g_plan.refusedOption ? 0 : 1;
}

/// What the daemon never frees: it makes one of each, these tests make one at every start.
static std::vector<const void*>& Kept() {
    static auto* const kept = new std::vector<const void*>;
    return *kept;
}

extern "C" GMainLoop* g_main_loop_new(GMainContext* /*context*/, gboolean isRunning) {
    Step(isRunning == FALSE ? "new loop" : "new running loop");
    // Never run nor looked into: any address serves.
    static int place = 0;
    return g_plan.haveLoop ? reinterpret_cast<GMainLoop*>(&place) : nullptr;
}

extern "C" void g_main_loop_run(GMainLoop* /*loop*/) {
    Step("run");
    g_plan.whileItRuns();
}

extern "C" void g_main_loop_quit(GMainLoop* /*loop*/) {
    Step("quit");
}

extern "C" guint g_unix_signal_add(gint number, GSourceFunc handler, gpointer data) {
    Step(std::string("catch ") + sigabbrev_np(number));
    g_signals.emplace_back([handler, data] { handler(data); });
    Kept().push_back(data);
    return 1;
}

void TCDebug::EnableFileLog(bool on) {
    Step(on ? "file log on" : "file log off");
}
TCDebug TCDebug::s_object;
TCDebug* const TCDebug::m_instance = &TCDebug::s_object;
void TCDebug::External(const char* /*className*/, const char* /*function*/, unsigned /*line*/,
                       const char* /*format*/, ...) {}

void TCTestRecording::Destroy() {}
bool TCTestRecording::t_OnEvent(const CSEvent* /*event*/) {
    return true;
}
void TCTestRecording::setKeyCombinationHandler() {
    Step("key combinations");
    Kept().push_back(this);
}

namespace zol {

class TCDbusServer::Impl {};
TCDbusServer::TCDbusServer(bool testMode) {
    Come(testMode ? "server in test mode" : "server");
}
TCDbusServer::~TCDbusServer() {
    Step("-server");
}
void TCDbusServer::RegisterNativeCall(int /*functionCode*/, NativeCallHandler /*handler*/) {}
int TCDbusServer::SendNotification(int /*code*/, int /*timeoutMs*/) {
    return 0;
}
void TCDbusServer::CancelNotifications() {
    Step("cancel waits");
}
void TCDbusServer::ServePolicy(IPolicyService* /*service*/) {}
void TCDbusServer::TellPolicyChange() {}
void TCDbusServer::TellPolicyHit(const TSPolicyHit& /*hit*/) {}

std::int64_t TCShiftedClock::GetCurrentTime() const {
    return 0;
}
void TCShiftedClock::LoadTimeShift() {
    Step("load shift");
}

TCCVLogger::TCCVLogger() {
    Come("logger");
}

// The real ones would bring the whole daemon along.
class TCPolicyTasks {};
// By value, as the real one takes it. NOLINTNEXTLINE(performance-unnecessary-value-param)
TCScheduler::TCScheduler(boost::function<void()> /*disableCallback*/, TCShiftedClock& clock)
    : m_clock(clock) {}
TCScheduler::~TCScheduler() = default;

TCPolicyManager::TCPolicyManager(TCShiftedClock& clock, IDbusServer* server, TCCVLogger* logger)
    : m_server(server), m_scheduler({}, clock), m_logger(logger) {
    Come("manager");
}
TCPolicyManager::~TCPolicyManager() {
    Step("-manager");
}

TCInformationStorage* TCInformationStorage::Instance() {
    static auto* storage = new TCInformationStorage;
    return storage;
}
void TCInformationStorage::Initialize(TCPolicyManager* /*manager*/, IDbusServer* /*server*/) {
    Step("storage");
}

ZOLPowerUtils::ZOLPowerUtils(TCPolicyManager* policyManager) : m_pPolicyManager(policyManager) {
    Come("power");
}
ZOLPowerUtils::~ZOLPowerUtils() {
    Step("-power");
}

TCControl::TCControl(TCPolicyManager& manager) : m_manager(manager) {}
TCControlNative::TCControlNative(IDbus& server, TCPolicyManager& manager)
    : TCControl(manager), m_server(server) {
    Come("control");
}
TCControlNative::~TCControlNative() {
    Step("-control");
}

PolicyService::PolicyService(IPolicyServer& server, TCPolicyManager& manager)
    : m_server(server), m_manager(manager) {
    Come("service");
}
PolicyService::~PolicyService() {
    Step("-service");
}
TSPolicyAnswer PolicyService::SetPolicy(const std::string& /*document*/) {
    return {};
}
std::vector<TSPolicyRemark> PolicyService::Check(const std::string& /*document*/) {
    return {};
}
std::vector<TSPolicyRule> PolicyService::Explain(const std::string& /*key*/) {
    return {};
}
TSPolicyState PolicyService::State() {
    return {};
}
TSPolicyDigests PolicyService::Digests() {
    return {};
}

}  // namespace zol
