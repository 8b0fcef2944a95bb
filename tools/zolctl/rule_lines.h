#pragma once
#include <map>
#include <string>
#include <string_view>

#include "record.h"

namespace zolctl {

/// Whether a text has a name as a whole: not as a part of a longer one.
[[nodiscard]] bool Names(std::string_view text, std::string_view name);

/// Tells the lines of one rule's life from the others: read, registered, changed, hit, reported, handed over.
/// Some of these do not name their rule. They are known by what the same thread has logged before them, so
/// every line of the log must be asked for, in order.
class RuleLines {
public:
    /// @param rule as the daemon names it in a hit: a key, an application's id, or "pairing"
    explicit RuleLines(std::string rule);

    [[nodiscard]] bool Wants(const dlogutil::Record& record);

private:
    enum class Kind { Key, Install, Pairing };

    /// What a thread of the daemon is about.
    struct Thread {
        bool isChange = false;  ///< a change of the rule's key is being judged
        bool isEvent = false;   ///< an event of the rule is being sent
        bool isReport = false;  ///< a report of the rule, and maybe of others, is being made
    };

    [[nodiscard]] bool IsNamedIn(const dlogutil::Record& record) const;

    const std::string m_rule;
    const Kind m_kind;
    std::map<std::string, Thread> m_threads;
};

}  // namespace zolctl
