#include <CLI/CLI.hpp>
#include <array>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "IControl.h"
#include "TCDbusClient.h"
#include "TCIpcSerializationUtil.h"
#include "ZOLPolicy.h"
#include "commands.h"
#include "text.h"

namespace zolctl {
namespace {

using tools::OneLine;

constexpr int kAnswerTimeoutMs = 60000;  ///< applying a policy of thousands of items takes a while

/// The document, from a file or, for "-", standard input. Empty optional when it cannot be read or is too
/// large.
std::optional<std::string> ReadDocument(const std::string& file) {
    std::ifstream opened;
    std::istream* input = &std::cin;
    if (file != "-") {
        opened.open(file, std::ios::binary);
        input = &opened;
    }
    std::string text;
    std::array<char, 65536> block;
    // Block by block: what never ends must not fill the memory first.
    while (text.size() <= zol::kMaxPolicyBytes &&
           (input->read(block.data(), block.size()), input->gcount() > 0)) {
        text.append(block.data(), static_cast<std::size_t>(input->gcount()));
    }
    if (input->bad() || (file != "-" && !opened.is_open())) {
        std::cerr << "zolctl: cannot read " << OneLine(file) << '\n';
        return std::nullopt;
    }
    if (text.size() > zol::kMaxPolicyBytes) {
        std::cerr << "zolctl: " << OneLine(file) << " is larger than " << zol::kMaxPolicyBytes << " bytes\n";
        return std::nullopt;
    }
    return text;
}

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

int Push(const std::string& file) {
    const std::optional<std::string> document = ReadDocument(file);
    if (!document) {
        return EXIT_UNREACHABLE;
    }
    zol::TCDbusClient client(false);
    std::vector<unsigned char> reply;
    switch (client.Call(zol::IControl_FC::SET_POLICY, Request(*document), reply, kAnswerTimeoutMs)) {
        case zol::TCDbusClient::EResult::HANDLED:
            if (Accepted(reply)) {
                std::cout << "accepted\n";
                return EXIT_OK;
            }
            std::cerr << "zolctl: refused: the daemon could not parse or store the policy (see its log)\n";
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

}  // namespace

void AddPolicyCommand(CLI::App& app, Action& action) {
    CLI::App* policy = app.add_subcommand("policy", "Policies of the daemon");
    policy->require_subcommand(1);
    CLI::App* push = policy->add_subcommand("push", "Send a policy; 0 accepted, 1 refused, 2 not reachable");
    auto file = std::make_shared<std::string>();
    push->add_option("FILE", *file, "XML document, or - for standard input")->required();
    push->callback([file, &action] { action = [file] { return Push(*file); }; });
}

}  // namespace zolctl
