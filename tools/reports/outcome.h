#pragma once
#include <string>
#include <system_error>
#include <utility>

namespace reports {

/// What came in the way, as far as a caller acts on it.
enum class Problem {
    None,
    Missing,     ///< there is no such folder, or not any more
    Refused,     ///< it is no report: a link, somebody else's, in another place
    Unreadable,  ///< the report is there and cannot be read now
    Unwritable,  ///< where it is to go cannot be written now
    Busy,        ///< another process takes reports to the same place
    NoStore      ///< the key of the hand-over cannot be read or written now
};

/// How something ended. Converts to true when there is a problem, like std::error_code.
struct Outcome {
    Problem problem = Problem::None;
    std::string text;  ///< of the problem: what and where, one line

    Outcome() = default;
    Outcome(Problem what, std::string why) : problem(what), text(std::move(why)) {}
    Outcome(Problem what, const std::string& where, const std::error_code& error)
        : problem(what), text(where + ": " + error.message()) {}
    explicit operator bool() const { return problem != Problem::None; }
};

}  // namespace reports
