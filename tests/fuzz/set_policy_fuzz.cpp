/// Calls the control interface with the bytes of a request. The daemon takes its policy while monitoring
/// runs, so that nothing but the call and the storing is at work.
#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <cstring>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "IControl.h"
#include "IDbus.h"
#include "PolicyFlag.h"
#include "TCIpcSerializationUtil.h"
#include "ZOLControlNative.h"
#include "ZOLPolicy.h"
#include "ZOLPolicyManager.h"
#include "ZOLShiftedClock.h"
#include "device_paths.h"
#include "fake_dlog.h"
#include "fake_vconf.h"
#include "fakes.h"
#include "fuzz_target.h"
#include "policy_request.h"

namespace {

using fuzz::Require;
using Bytes = std::vector<unsigned char>;

class Server : public zol::IDbus {
public:
    void RegisterNativeCall(int /*functionCode*/, zol::NativeCallHandler handler) override {
        call = std::move(handler);
    }
    zol::NativeCallHandler call;
};

/// The policy side of the daemon; it lives as long as the process.
struct Daemon {
    zol::TCShiftedClock clock;
    zol::TCPolicyManager manager{clock, nullptr, nullptr};
    Server server;
    zol::TCControlNative control{server, manager};
};

Daemon& TheDaemon() {
    fakes::dlog::Clear();
    static auto* const daemon = new Daemon;
    fakes::vconf::SetBool(zol::kMonitoringRuns.key, true);
    return *daemon;
}

/// The answer to a request: 0 or 1, and nothing when it was refused.
std::optional<std::int32_t> Call(const Bytes& request) {
    Bytes reply;
    try {
        if (!TheDaemon().server.call(request, reply)) {
            Require(request.empty() && reply.empty(), "only an empty request is not handled");
            return std::nullopt;
        }
    } catch (const boost::archive::archive_exception&) {
        return std::nullopt;
    } catch (const std::length_error&) {
        Require(request.size() > zol::kMaxPolicyBytes, "only a long request is too long");
        return std::nullopt;
    }
    std::stringstream stream;
    TCIpcSerializationUtil::ConvertData(reply, stream);
    boost::archive::binary_iarchive archive(stream);
    std::int32_t answer = -1;
    archive >> answer;
    Require(stream.rdbuf()->in_avail() == 0 && (answer == 0 || answer == 1), "an answer");
    return answer;
}

/// A refused call changes nothing; an accepted one leaves one of its texts or what was stored before.
void CheckRaw(const Bytes& request) {
    const std::string before = fakes::ReadDeviceFile(ZOL_PATH_POLICY);
    const std::optional<std::int32_t> answer = Call(request);
    const std::string after = fakes::ReadDeviceFile(ZOL_PATH_POLICY);
    Require(answer == 1 || after == before, "a refused call leaves the stored policy");
    Require(after == before || std::string(request.begin(), request.end()).find(after) != std::string::npos,
            "what is stored came with the call");
}

/// A well-formed request is the same as the text in it.
void CheckText(const std::string& text) {
    const std::optional<std::int32_t> answer = Call(PolicyRequest(text));
    Require(answer.has_value(), "a well-formed request is handled");
    const std::string stored = fakes::ReadDeviceFile(ZOL_PATH_POLICY);
    const bool accepted = TheDaemon().manager.UpdatePolicy(text);
    Require(accepted == (answer == 1), "the answer");
    Require(fakes::ReadDeviceFile(ZOL_PATH_POLICY) == stored, "what is stored");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 0 && data[0] == '<') {
        CheckText(std::string(data, data + size));
    } else {
        CheckRaw(Bytes(data, data + size));
    }
    return 0;
}
