#include "state.h"

#include <ostream>

#include "text.h"

namespace zolctl {
namespace {

Json::Value TimeOf(const Json::Value& seconds) {
    return seconds.asInt64() != 0 ? Json::Value(tools::UtcTime(seconds.asInt64())) : Json::Value();
}

}  // namespace

Json::Value PolicyOf(const Json::Value& properties) {
    Json::Value policy;
    policy["stored_digest"] = properties["PolicyDigest"][0];
    policy["running_digest"] = properties["PolicyDigest"][1];
    policy["since"] = TimeOf(properties["Since"]);
    policy["expires"] = TimeOf(properties["Expires"]);
    policy["monitoring"] = properties["Monitoring"];
    policy["rules_watched"] = properties["RulesWatched"];
    policy["rules_dropped"] = properties["RulesDropped"];
    return policy;
}

void PrintPolicy(std::ostream& out, const Json::Value& properties) {
    const std::string stored = properties["PolicyDigest"][0].asString();
    const std::string running = properties["PolicyDigest"][1].asString();
    out << "running\t";
    if (running.empty()) {
        out << "no policy\n";
    } else {
        const Json::Int64 expiry = properties["Expires"].asInt64();
        out << "a policy since " << tools::LocalTime(properties["Since"].asInt64()) << ", "
            << (expiry != 0 ? "expires " + tools::LocalTime(expiry) : "expired") << ", SHA-256 " << running
            << '\n';
    }
    out << "stored\t";
    if (stored.empty()) {
        out << "no policy\n";
    } else if (stored == running) {
        out << "the policy that runs\n";
    } else {
        out << "another policy, for the next start, SHA-256 " << stored << '\n';
    }
    out << "rules\t" << properties["RulesWatched"].asString() << " watched, "
        << properties["RulesDropped"].asString() << " dropped\n";
}

}  // namespace zolctl
