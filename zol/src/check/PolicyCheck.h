#pragma once
/// What is wrong with a policy document, told to whoever wrote it. Logs nothing; any thread.
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace zol {

enum class EPolicyFinding {
    REFUSED,            ///< the document is not taken: not well-formed, or beyond a limit
    CUT_SHORT,          ///< it ends too early; what stands before the end counts
    NOTHING_WATCHED,    ///< it is taken, and nothing comes of it
    DROPPED,            ///< an item that is not watched: PolicyValidation.h says why
    NO_KEY,             ///< an item without a key, which nothing can watch
    UNKNOWN_ELEMENT,    ///< ignored
    UNKNOWN_ATTRIBUTE,  ///< ignored
    LETTER_CASE,        ///< a name that is known, but not in these letters to the schema
    MISPLACED,          ///< an element that is read where the schema does not have it
    NUMBER,             ///< a number that is read as another one
    NO_TIME,            ///< zol_expired_time without time
    EXPIRY,             ///< the policy expires at once, or another element says when
    BOUND_IGNORED,      ///< a bound on an item that has no use for it
    MINUS_ONE,          ///< "not given" that is compared as a number
    EMPTY_RANGE,        ///< no value fits
    REPEATED_KEY,       ///< a change of the key is judged by an item before this one
    REPEATED_MONITOR,   ///< an item before this one is the one that is monitored
    NOT_MONITORED,      ///< an item of a kind that nothing monitors
    THRESHOLD,          ///< every event is a hit
    PERIOD,             ///< the counting period is too short or too long for what it says
    IGNORE_TIME,        ///< the ignore time is another one than it says
    LONG_ID,            ///< an id that is cut
    OWN_KEY,            ///< a key that the daemon itself writes
    KEY_TYPE,           ///< the key in the store is not of the item's type
    MORE                ///< too many findings to list them all
};

/// The finding's name in lists and in JSON, such as "nothing-watched".
[[nodiscard]] const char* NameOf(EPolicyFinding kind);

struct TSPolicyFinding {
    EPolicyFinding kind = EPolicyFinding::REFUSED;
    unsigned line = 1;
    unsigned column = 1;   ///< in characters, from 1
    bool isError = false;  ///< else a warning
    std::string text;      ///< UTF-8; it quotes the document, so any character that XML allows may be in it
    std::string hint;      ///< what to write instead; often empty
};

/// Of the errors, and of the warnings, at most so many are listed; one of kind MORE says how many are not.
constexpr std::size_t kMaxPolicyFindings = 10000;

/// The enum vconf_type that a key has in the store; VCONF_TYPE_NONE when it is not known.
using TypeOfKey = std::function<int(const std::string& key)>;

/// Reads the document with the daemon's own parser and judges the items with its own validation. The document
/// is refused by the daemon exactly when there is a finding REFUSED, and then only what stands before it is
/// judged.
///
/// @param typeOfKey is asked for the key of each item that is watched; empty: no finding KEY_TYPE
/// @return in the order of the document
[[nodiscard]] std::vector<TSPolicyFinding> CheckPolicy(const std::string& xml,
                                                       const TypeOfKey& typeOfKey = {});

/// Rules of the document, those that are dropped included. 0 for one that is refused.
[[nodiscard]] std::size_t CountRules(const std::string& xml);

}  // namespace zol
