#include "PolicyFindings.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>

namespace zol {
namespace {

constexpr std::size_t kMaxQuotedBytes = 80;

struct TSName {
    EPolicyFinding kind;
    const char* name;
};

constexpr std::array<TSName, 25> kNames{{{EPolicyFinding::REFUSED, "refused"},
                                         {EPolicyFinding::CUT_SHORT, "cut-short"},
                                         {EPolicyFinding::NOTHING_WATCHED, "nothing-watched"},
                                         {EPolicyFinding::DROPPED, "dropped"},
                                         {EPolicyFinding::NO_KEY, "no-key"},
                                         {EPolicyFinding::UNKNOWN_ELEMENT, "unknown-element"},
                                         {EPolicyFinding::UNKNOWN_ATTRIBUTE, "unknown-attribute"},
                                         {EPolicyFinding::LETTER_CASE, "letter-case"},
                                         {EPolicyFinding::MISPLACED, "misplaced"},
                                         {EPolicyFinding::NUMBER, "number"},
                                         {EPolicyFinding::NO_TIME, "no-time"},
                                         {EPolicyFinding::EXPIRY, "expiry"},
                                         {EPolicyFinding::BOUND_IGNORED, "bound-ignored"},
                                         {EPolicyFinding::MINUS_ONE, "minus-one"},
                                         {EPolicyFinding::EMPTY_RANGE, "empty-range"},
                                         {EPolicyFinding::REPEATED_KEY, "repeated-key"},
                                         {EPolicyFinding::REPEATED_MONITOR, "repeated-monitor"},
                                         {EPolicyFinding::NOT_MONITORED, "not-monitored"},
                                         {EPolicyFinding::THRESHOLD, "threshold"},
                                         {EPolicyFinding::PERIOD, "period"},
                                         {EPolicyFinding::IGNORE_TIME, "ignore-time"},
                                         {EPolicyFinding::LONG_ID, "long-id"},
                                         {EPolicyFinding::OWN_KEY, "own-key"},
                                         {EPolicyFinding::KEY_TYPE, "key-type"},
                                         {EPolicyFinding::MORE, "more"}}};

/// Whether a character of UTF-8 goes on with this byte.
bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

}  // namespace

const char* NameOf(EPolicyFinding kind) {
    const auto* found = std::find_if(kNames.begin(), kNames.end(),
                                     [kind](const TSName& known) { return known.kind == kind; });
    return found != kNames.end() ? found->name : "";
}

std::string Quoted(const std::string& text) {
    if (text.size() <= kMaxQuotedBytes) {
        return "'" + text + "'";
    }
    std::size_t length = kMaxQuotedBytes;
    while (length > 0 && IsContinuation(text[length])) {
        --length;
    }
    return "'" + text.substr(0, length) + "...'";
}

void TCPolicyFindings::AddError(EPolicyFinding kind, const TSPlace& place, std::string text,
                                std::string hint) {
    m_Add({kind, place.line, place.column, true, std::move(text), std::move(hint)}, m_errors);
}

void TCPolicyFindings::AddWarning(EPolicyFinding kind, const TSPlace& place, std::string text,
                                  std::string hint) {
    m_Add({kind, place.line, place.column, false, std::move(text), std::move(hint)}, m_warnings);
}

void TCPolicyFindings::m_Add(TSPolicyFinding finding, std::size_t& count) {
    const TSPlace place{finding.line, finding.column};
    if (std::tie(m_last.line, m_last.column) < std::tie(place.line, place.column)) {
        m_last = place;
    }
    if (++count <= kMaxPolicyFindings) {
        m_findings.push_back(std::move(finding));
    }
}

void TCPolicyFindings::m_TellUnlisted(const char* what, std::size_t count, bool isError) {
    if (count > kMaxPolicyFindings) {
        m_findings.push_back(
            {EPolicyFinding::MORE,
             m_last.line,
             m_last.column,
             isError,
             std::to_string(count - kMaxPolicyFindings) + " more " + what + " are not listed",
             {}});
    }
}

std::vector<TSPolicyFinding> TCPolicyFindings::Take() {
    m_TellUnlisted("errors", m_errors, true);
    m_TellUnlisted("warnings", m_warnings, false);
    std::stable_sort(m_findings.begin(), m_findings.end(),
                     [](const TSPolicyFinding& left, const TSPolicyFinding& right) {
                         return std::tie(left.line, left.column) < std::tie(right.line, right.column);
                     });
    return std::move(m_findings);
}

}  // namespace zol
