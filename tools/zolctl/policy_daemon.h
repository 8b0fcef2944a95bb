#pragma once
/// The daemon as org.zol.Policy1 shows it; maker/dbus has the document of that interface.
#include <json/value.h>

#include <string>

#include "base/bus_caller.h"

namespace zolctl {

/// What became of a policy.
struct Handed {
    bool isAccepted = false;
    std::string outcome;  ///< as SetPolicy says it
};

/// One connection to the daemon; it is not started for it.
class PolicyDaemon {
public:
    using EEnd = base::BusCaller::EEnd;

    /// @param document valid UTF-8
    [[nodiscard]] EEnd SetPolicy(const std::string& document, Handed& handed);
    /// Every property by its name; a structure is an array.
    [[nodiscard]] EEnd Properties(Json::Value& properties, int timeoutMs = 10000);
    /// An array with an object for each rule that looks at the key; of all rules for an empty one.
    [[nodiscard]] EEnd Explain(const std::string& key, Json::Value& rules);

    /// Why the last call did not come to anything.
    [[nodiscard]] const std::string& LastError() const { return m_bus.LastError(); }
    /// Says on standard error why the last call did not come to anything. @return the exit status for it
    [[nodiscard]] int Fail(EEnd end) const;

private:
    base::BusCaller m_bus{G_BUS_TYPE_SYSTEM};
};

}  // namespace zolctl
