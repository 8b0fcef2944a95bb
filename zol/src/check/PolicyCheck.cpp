#include "PolicyCheck.h"

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "ParseBudget.h"
#include "PolicyAttributes.h"
#include "PolicyFindings.h"
#include "PolicyItemCheck.h"
#include "PolicyNames.h"
#include "PolicyObserver.h"
#include "ZOLPolicyParser.h"

namespace zol {
namespace {

constexpr std::string_view kMalformed = "not well-formed";
constexpr const char* kBlanks = " \t\r\n";

/// The number that the whole text is, blanks around it aside.
std::optional<std::int64_t> WholeNumber(const std::string& text) {
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string::npos) {
        return std::nullopt;
    }
    std::string_view digits(text);
    digits = digits.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
    if (digits[0] == '+' && digits.substr(1, 1) != "-") {
        digits.remove_prefix(1);
    }
    std::int64_t number = 0;
    const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    const bool isWhole = error == std::errc() && stop == digits.data() + digits.size();
    return isWhole ? std::optional(number) : std::nullopt;
}

/// How the parser reads a number; nothing when it leaves the default alone.
std::optional<std::int64_t> ReadNumber(const TCAttributes& values, const TSKnownAttribute& attribute) {
    const std::string name(attribute.name);
    if (attribute.type == EAttributeType::SECONDS) {
        std::uint64_t number = 0;
        values.GetValue(name, number);
        return static_cast<std::int64_t>(number);
    }
    std::int32_t number = 0;
    std::int32_t again = 1;
    values.GetValue(name, number);
    values.GetValue(name, again);
    return number == again ? std::optional<std::int64_t>(number) : std::nullopt;
}

/// A prefix that is declared means nothing here, and to the schema it is no attribute.
bool IsNamespace(std::string_view name, std::string_view value) {
    return name.substr(0, 6) == "xmlns:" || (name == "xmlns" && value.empty());
}

std::string DidYouMean(std::string_view nearest) {
    return nearest.empty() ? "" : "did you mean " + std::string(nearest) + "?";
}

/// Makes findings of what the parser tells.
class TCPolicyCheck : public IPolicyObserver {
public:
    explicit TCPolicyCheck(const TypeOfKey& typeOfKey) : m_items(m_findings, typeOfKey) {}

    void OnElement(const TSElement& element, const ZOLPolicy& policy) override;
    void OnElementEnd() override;
    void OnCutShort(const TSPlace& where) override { m_cut = where; }
    void OnRefused(const TSPlace& where, EPolicyRefusal reason, const char* words) override;

    /// What only the whole document tells, and all that was told before. Once.
    std::vector<TSPolicyFinding> Finish(const ZOLPolicy& policy);

private:
    /// How an open element is taken by those inside it.
    enum class EParent { ROOT, KNOWN, UNKNOWN };

    void m_CheckPlace(const TSElement& element, std::string_view tag);
    void m_CheckAttributes(const TSElement& element, const TSKnownElement& known);
    void m_CheckNumber(const TSElement& element, const TSKnownAttribute& attribute, const std::string& text);
    void m_CheckExpiry(const TSElement& element, const ZOLPolicy& policy);
    void m_TellUnknown(const TSElement& element);
    void m_FinishWatched(const ZOLPolicy& policy);

    TCPolicyFindings m_findings;
    TCPolicyItemCheck m_items;
    std::vector<EParent> m_open;
    std::optional<TSPlace> m_root;
    std::optional<TSPlace> m_expiry;
    std::optional<TSPlace> m_cut;
    bool m_isRefused = false;
};

void TCPolicyCheck::OnElement(const TSElement& element, const ZOLPolicy& policy) {
    if (!m_root) {
        m_root = element.place;
    }
    const std::string tag = ToLowerAscii(element.name);
    const TSKnownElement* known = FindElement(tag);
    if (known == nullptr) {
        m_TellUnknown(element);
        m_open.push_back(EParent::UNKNOWN);
        return;
    }
    if (element.name != tag) {
        m_findings.AddWarning(EPolicyFinding::LETTER_CASE, element.place,
                              std::string(element.name) + " is read as " + tag,
                              "the schema for editors has it in small letters");
    }
    m_CheckPlace(element, tag);
    m_CheckAttributes(element, *known);
    if (tag == kRuleTag) {
        m_items.CheckRule(element.place, policy.vconfMonitors.back(), element.values);
    } else if (tag == kMonitorTag) {
        m_items.CheckMonitor(element.place, policy.policyMonitors.back(), element.values);
    } else if (tag == kExpiryTag) {
        m_CheckExpiry(element, policy);
    }
    m_open.push_back(m_open.empty() && tag == kRootTag ? EParent::ROOT : EParent::KNOWN);
}

void TCPolicyCheck::OnElementEnd() {
    // A tag that went beyond the budget was not told of.
    if (!m_open.empty()) {
        m_open.pop_back();
    }
}

void TCPolicyCheck::m_TellUnknown(const TSElement& element) {
    std::vector<std::string_view> tags;
    for (const TSKnownElement& known : KnownElements()) {
        tags.push_back(known.tag);
    }
    m_findings.AddWarning(EPolicyFinding::UNKNOWN_ELEMENT, element.place,
                          "element " + Quoted(element.name) + " means nothing",
                          DidYouMean(NearestOf(tags, element.name)));
}

void TCPolicyCheck::m_CheckPlace(const TSElement& element, std::string_view tag) {
    const bool isRoot = tag == kRootTag;
    const bool isExpected = m_open.empty() ? isRoot : !isRoot && m_open.back() != EParent::KNOWN;
    if (!isExpected) {
        m_findings.AddWarning(
            EPolicyFinding::MISPLACED, element.place,
            std::string(tag) +
                (isRoot ? " inside another element is read like the outermost one"
                        : std::string(" is read, though it does not stand directly in ") + kRootTag.data()));
    }
}

void TCPolicyCheck::m_CheckAttributes(const TSElement& element, const TSKnownElement& known) {
    for (const char* const* attribute = element.attributes; attribute[0] != nullptr; attribute += 2) {
        const std::string name = ToLowerAscii(attribute[0]);
        const TSKnownAttribute* found = FindAttribute(known, name);
        if (found == nullptr) {
            if (!IsNamespace(attribute[0], attribute[1])) {
                std::vector<std::string_view> names;
                for (const TSKnownAttribute& one : known.attributes) {
                    names.push_back(one.name);
                }
                m_findings.AddWarning(
                    EPolicyFinding::UNKNOWN_ATTRIBUTE, element.place,
                    "attribute " + Quoted(attribute[0]) + " of " + std::string(known.tag) + " means nothing",
                    DidYouMean(NearestOf(names, attribute[0])));
            }
            continue;
        }
        if (name != attribute[0]) {
            m_findings.AddWarning(EPolicyFinding::LETTER_CASE, element.place,
                                  std::string(attribute[0]) + " is read as " + name,
                                  "the schema for editors has it in small letters");
        }
        m_CheckNumber(element, *found, attribute[1]);
    }
}

void TCPolicyCheck::m_CheckNumber(const TSElement& element, const TSKnownAttribute& attribute,
                                  const std::string& text) {
    std::string last;
    // Of names that differ in letter case alone the last one is read.
    if (attribute.type == EAttributeType::TEXT ||
        !element.values.GetValue(std::string(attribute.name), last) || last != text) {
        return;
    }
    const std::optional<std::int64_t> read = ReadNumber(element.values, attribute);
    if (!read) {
        m_findings.AddWarning(
            EPolicyFinding::NUMBER, element.place,
            std::string(attribute.name) + " " + Quoted(text) + " is no number and counts as not given");
    } else if (WholeNumber(text) != read) {
        m_findings.AddWarning(
            EPolicyFinding::NUMBER, element.place,
            std::string(attribute.name) + " " + Quoted(text) + " is read as " + std::to_string(*read),
            attribute.type == EAttributeType::INT ? "a whole number from -2147483648 to 2147483647"
                                                  : "a whole number from 0 to 4294967295");
    }
}

void TCPolicyCheck::m_CheckExpiry(const TSElement& element, const ZOLPolicy& policy) {
    if (m_expiry) {
        m_findings.AddWarning(
            EPolicyFinding::EXPIRY, element.place,
            "this zol_expired_time counts, not the one in line " + std::to_string(m_expiry->line));
    }
    m_expiry = element.place;
    std::string text;
    if (!element.values.GetValue("time", text)) {
        m_findings.AddWarning(EPolicyFinding::NO_TIME, element.place,
                              "time is missing: the policy expires at once");
    } else if (policy.expiredTime == 0) {
        m_findings.AddWarning(EPolicyFinding::EXPIRY, element.place,
                              "time " + Quoted(text) + ": the policy expires at once", "seconds");
    }
}

void TCPolicyCheck::OnRefused(const TSPlace& where, EPolicyRefusal reason, const char* words) {
    m_isRefused = true;
    const auto refuse = [&](const std::string& why, const char* hint) {
        m_findings.AddError(EPolicyFinding::REFUSED, where, why, hint);
    };
    constexpr const char* kLimits = "see the limits in the policy reference";
    switch (reason) {
        case EPolicyRefusal::MALFORMED:
            // Some of the library's words begin so themselves.
            return refuse(kMalformed == std::string_view(words).substr(0, kMalformed.size())
                              ? words
                              : std::string(kMalformed) + ": " + words,
                          "");
        case EPolicyRefusal::TOO_LONG:
            return refuse("longer than " + std::to_string(kMaxPolicyBytes) + " bytes", "");
        case EPolicyRefusal::BEYOND_BUDGET:
            return refuse("more attributes, items, declarations or open elements than are read", kLimits);
        case EPolicyRefusal::NO_MEMORY:
            return refuse("takes more memory to read than there is for it", kLimits);
    }
}

void TCPolicyCheck::m_FinishWatched(const ZOLPolicy& policy) {
    std::string why;
    std::string hint;
    if (!m_root) {
        why = "the document has no element";
    } else if (policy.vconfMonitors.empty() && policy.policyMonitors.empty()) {
        why = "no item: the document is taken for a set of commands and not stored";
        hint = "add a zols item";
    } else if (policy.vconfMonitors.empty()) {
        why =
            "monitors without a zols item do nothing: the document is taken for a set of commands and not "
            "stored";
        hint = "add a zols item";
    } else {
        why = "no item is left; the document is stored all the same, in place of the one before it";
    }
    m_findings.AddError(EPolicyFinding::NOTHING_WATCHED, m_root.value_or(TSPlace()),
                        "nothing is watched: " + why, hint);
}

std::vector<TSPolicyFinding> TCPolicyCheck::Finish(const ZOLPolicy& policy) {
    if (m_isRefused) {
        return m_findings.Take();
    }
    if (policy.vconfMonitors.empty() || m_items.CountWatched() == 0) {
        m_FinishWatched(policy);
    }
    if (m_root && m_cut) {
        m_findings.AddWarning(EPolicyFinding::CUT_SHORT, *m_cut,
                              "the document ends too early: what stands before counts");
    } else if (m_root && !m_expiry) {
        m_findings.AddWarning(EPolicyFinding::EXPIRY, *m_root,
                              "zol_expired_time is missing: the policy expires at once",
                              "add <zol_expired_time time=\"2592000\"/> for thirty days");
    }
    return m_findings.Take();
}

}  // namespace

std::vector<TSPolicyFinding> CheckPolicy(const std::string& xml, const TypeOfKey& typeOfKey) {
    TCPolicyCheck check(typeOfKey);
    ZOLPolicy policy;
    // The observer is told the result, too.
    static_cast<void>(TCPolicyParser().Parse(xml, policy, &check));
    return check.Finish(policy);
}

std::size_t CountRules(const std::string& xml) {
    IPolicyObserver silent;  // without an observer each item is logged
    ZOLPolicy policy;
    const bool isTaken = TCPolicyParser().Parse(xml, policy, &silent);
    return isTaken ? policy.vconfMonitors.size() + policy.policyMonitors.size() : 0;
}

}  // namespace zol
