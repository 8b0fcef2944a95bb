/// What a device's own libraries of the maker offer to the daemon and to zolctl: these functions and no
/// others. docs/platform-interfaces.md says what each must do; these do next to nothing.
#include "KPILogFramework.h"
#include "TCDbusClient.h"
#include "TCDbusServer.h"
#include "TCDebug.h"
#include "TCIpcSerializationUtil.h"
#include "cv/TCScopeContainer.h"
#include "cv/TCScopeHandler.h"
#include "cv/TCTraceControl.h"

// KPI events.
namespace KPILogFramework {

class CLogger::Store {};
CLogger::CLogger() = default;
CLogger::~CLogger() = default;

CLogger& CLogger::GetInstance() {
    static CLogger instance;
    return instance;
}

int CLogger::AddEventLogSync(const std::string& /*type*/, const std::string& /*category*/,
                             const std::string& /*eventId*/, const std::string& /*description*/) {
    return RESULT_SUCCESS;
}

bool CLogger::ListEvents(std::vector<TSKpiEvent>& events, std::int64_t /*after*/) {
    events = {{1, 0, "20_errdata", "ZOL", "EV007", "of the device's own log"}};
    return true;
}

std::int64_t CLogger::DroppedEvents() {
    return 0;
}

}  // namespace KPILogFramework

// The debug channel.
TCDebug TCDebug::s_object;
TCDebug* const TCDebug::m_instance = &TCDebug::s_object;

void TCDebug::External(const char* /*className*/, const char* /*function*/, unsigned /*line*/,
                       const char* /*format*/, ...) {}

void TCDebug::EnableFileLog(bool on) {
    s_object.m_fileLog = on;
}

void TCDebug::Assert(const char* /*file*/, unsigned /*line*/) {}

// Tracing.
namespace cv {

std::atomic<TCScopeHandler::EState> TCScopeHandler::s_state{EState::INACTIVE};

bool TCScopeHandler::Resolve() noexcept {
    return false;
}

void TCScope::Open(const TCScopeContainer& /*site*/) noexcept {}
void TCScope::Close() noexcept {}

bool TSCallItemHelper::StoreNumber(TCScope& /*scope*/, EItemKind /*kind*/, std::size_t /*size*/,
                                   std::uint64_t /*bits*/) noexcept {
    return true;
}

bool TSCallItemHelper::StoreText(TCScope& /*scope*/, std::string_view /*text*/) noexcept {
    return true;
}

bool TCTraceControl::SaveDump(const std::string& /*sourceFolder*/, const std::string& /*destinationFolder*/,
                              int /*withTraps*/, int /*clear*/) {
    return true;
}

TCTraceControl* api::GetControl() {
    static TCTraceControl control;
    return &control;
}

}  // namespace cv

// IPC.
namespace zol {

class TCDbusServer::Impl {};
TCDbusServer::TCDbusServer(bool /*testMode*/) {}
TCDbusServer::~TCDbusServer() = default;
void TCDbusServer::RegisterNativeCall(int /*functionCode*/, NativeCallHandler /*handler*/) {}
int TCDbusServer::SendNotification(int /*code*/, int /*timeoutMs*/) {
    return 0;
}
void TCDbusServer::CancelNotifications() {}
void TCDbusServer::ServePolicy(IPolicyService* /*service*/) {}
void TCDbusServer::TellPolicyChange() {}
void TCDbusServer::TellPolicyHit(const TSPolicyHit& /*hit*/) {}

class TCDbusClient::Impl {};
TCDbusClient::TCDbusClient(bool /*testMode*/) {}
TCDbusClient::~TCDbusClient() = default;
TCDbusClient::EResult TCDbusClient::Call(int /*functionCode*/, const std::vector<unsigned char>& /*request*/,
                                         std::vector<unsigned char>& /*reply*/, int /*timeoutMs*/) {
    return EResult::UNREACHABLE;
}
const std::string& TCDbusClient::LastError() const {
    static const std::string error = "no daemon";
    return error;
}

}  // namespace zol

void TCIpcSerializationUtil::ConvertData(const std::vector<unsigned char>& bytes, std::stringstream& stream) {
    stream.str({bytes.begin(), bytes.end()});
}

void TCIpcSerializationUtil::ConvertData(const std::stringstream& stream, std::vector<unsigned char>& bytes) {
    const std::string text = stream.str();
    bytes.assign(text.begin(), text.end());
}
