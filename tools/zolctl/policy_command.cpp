#include <glib.h>
#include <json/value.h>

#include <CLI/CLI.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>
#include <cstdint>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "IControl.h"
#include "PolicyCheck.h"
#include "TCDbusClient.h"
#include "TCIpcSerializationUtil.h"
#include "commands.h"
#include "document.h"
#include "findings.h"
#include "key_types.h"
#include "policy_daemon.h"
#include "text.h"

namespace zolctl {
namespace {

using tools::OneLine;
using tools::Printable;

constexpr const char* kNotStored =
    "zolctl: refused: the daemon could not parse or store the policy (see its log)\n";
constexpr int kAnswerTimeoutMs = 60000;  ///< applying a policy of thousands of items takes a while

std::vector<unsigned char> Request(const std::string& document) {
    std::stringstream stream;
    boost::archive::binary_oarchive archive(stream);
    archive << document;
    std::vector<unsigned char> bytes;
    TCIpcSerializationUtil::ConvertData(stream, bytes);
    return bytes;
}

bool Accepted(const std::vector<unsigned char>& reply) {
    std::stringstream stream;
    TCIpcSerializationUtil::ConvertData(reply, stream);
    boost::archive::binary_iarchive archive(stream);
    std::int32_t result = 0;
    archive >> result;
    return result == 1;
}

/// Tells what is wrong with the document. Whether it may be sent.
bool MayBeSent(const std::string& file, const std::string& document, bool isForced) {
    // It would end whatever the daemon takes for the policy's application, and mean nothing else.
    if (document.find_first_not_of(" \t\r\n") == std::string::npos) {
        std::cerr << "zolctl: refused: " << Printable(file) << " is empty\n";
        return false;
    }
    KeyTypes types;
    const std::vector<zol::TSPolicyFinding> findings =
        zol::CheckPolicy(document, [&types](const std::string& key) { return types.TypeOf(key); });
    const bool isRefused = HasErrors(findings) && !isForced;
    for (const zol::TSPolicyFinding& finding : findings) {
        const bool isReason = isRefused && finding.isError;
        std::cerr << "zolctl: " << (isReason ? "refused: " : "")
                  << LineOf(file,
                            isReason          ? ""
                            : finding.isError ? "error"
                                              : "warning",
                            finding)
                  << '\n';
    }
    if (isRefused) {
        std::cerr << "zolctl: nothing was sent; --force sends it all the same\n";
    }
    return !isRefused;
}

/// "accepted" and what became of it, in a line.
void TellAccepted(const std::string& outcome, const std::string& document, const Json::Value& state) {
    std::cout << "accepted";
    if (outcome != "stored" && outcome != "running") {
        std::cout << ": " << OneLine(outcome);
    } else if (state.isNull()) {
        std::cout << ", " << outcome;
    } else if (outcome == "stored") {
        const Json::Value& digests = state["PolicyDigest"];
        std::cout << ", stored: "
                  << (digests[0] == digests[1] ? "this policy runs already"
                                               : "takes effect at the next start");
    } else {
        const Json::Int64 expiry = state["Expires"].asInt64();
        std::cout << ", running: " << state["RulesWatched"].asUInt() << " of " << zol::CountRules(document)
                  << " rules, " << (expiry != 0 ? "expires " + tools::LocalTime(expiry) : "expired");
    }
    std::cout << '\n';
}

int PushText(const std::string& document) {
    PolicyDaemon daemon;
    Handed handed;
    if (const auto end = daemon.SetPolicy(document, handed); end != PolicyDaemon::EEnd::ANSWERED) {
        const int status = daemon.Fail(end);
        return end == PolicyDaemon::EEnd::FAILED ? EXIT_REFUSED : status;
    }
    if (!handed.isAccepted) {
        std::cerr << kNotStored;
        return EXIT_REFUSED;
    }
    Json::Value state;
    static_cast<void>(daemon.Properties(state));  // it was accepted, whether the rest can be told or not
    TellAccepted(handed.outcome, document, state);
    return EXIT_OK;
}

/// A document in an encoding that the typed interface cannot take.
int PushBytes(const std::string& document) {
    zol::TCDbusClient client(false);
    std::vector<unsigned char> reply;
    switch (client.Call(zol::IControl_FC::SET_POLICY, Request(document), reply, kAnswerTimeoutMs)) {
        case zol::TCDbusClient::EResult::HANDLED:
            if (Accepted(reply)) {
                std::cout << "accepted; zolctl status tells what runs\n";
                return EXIT_OK;
            }
            std::cerr << kNotStored;
            return EXIT_REFUSED;
        case zol::TCDbusClient::EResult::REFUSED:
            std::cerr << "zolctl: refused: the daemon does not take policies\n";
            return EXIT_REFUSED;
        case zol::TCDbusClient::EResult::FAILED:
            std::cerr << "zolctl: refused: " << OneLine(client.LastError()) << '\n';
            return EXIT_REFUSED;
        case zol::TCDbusClient::EResult::UNREACHABLE:
            break;
    }
    std::cerr << "zolctl: the daemon cannot be reached: " << OneLine(client.LastError()) << '\n';
    return EXIT_UNREACHABLE;
}

int Push(const std::string& file, bool isForced) {
    std::string document;
    if (const Unreadable why = ReadDocument(file, document); !why.empty()) {
        std::cerr << "zolctl: " << why << '\n';
        return EXIT_UNREACHABLE;
    }
    if (!MayBeSent(file, document, isForced)) {
        return EXIT_REFUSED;
    }
    const bool isUtf8 =
        g_utf8_validate(document.data(), static_cast<gssize>(document.size()), nullptr) != FALSE;
    return isUtf8 ? PushText(document) : PushBytes(document);
}

}  // namespace

void AddPolicyCommand(CLI::App& app, Action& action) {
    CLI::App* policy = app.add_subcommand("policy", "Policies of the daemon");
    policy->require_subcommand(1);
    policy->footer(
        "Examples:\n"
        "  zolctl policy check policy.xml\n"
        "  zolctl policy test scenarios/*.yaml\n"
        "  zolctl policy push policy.xml\n"
        "  zolctl policy show");
    AddCheckCommand(*policy, action);
    AddTestCommand(*policy, action);
    AddShowCommands(*policy, action);
    CLI::App* push = policy->add_subcommand(
        "push", "Check and send a policy, tell what became of it; 0 accepted, 1 refused, 2 not reachable");
    push->footer(
        "Examples:\n"
        "  zolctl policy push policy.xml\n"
        "  generate-policy | zolctl policy push -");
    auto file = std::make_shared<std::string>();
    auto isForced = std::make_shared<bool>(false);
    push->add_option("FILE", *file, "XML document, or - for standard input")->required();
    push->add_flag("--force", *isForced, "Send it also where zolctl policy check finds errors");
    push->callback([file, isForced, &action] { action = [=] { return Push(*file, *isForced); }; });
}

}  // namespace zolctl
