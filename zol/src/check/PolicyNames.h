#pragma once
/// The names that mean something in a policy document, in lower case, and which one somebody may have meant.
#include <string>
#include <string_view>
#include <vector>

namespace zol {

enum class EAttributeType {
    TEXT,
    INT,     ///< signed, 32 bits
    SECONDS  ///< unsigned, 32 bits
};

struct TSKnownAttribute {
    std::string_view name;
    EAttributeType type;
};

struct TSKnownElement {
    std::string_view tag;
    std::vector<TSKnownAttribute> attributes;
};

inline constexpr std::string_view kRootTag = "zolitem";
inline constexpr std::string_view kRuleTag = "zols";
inline constexpr std::string_view kExpiryTag = "zol_expired_time";
inline constexpr std::string_view kMonitorTag = "monitor";

[[nodiscard]] const std::vector<TSKnownElement>& KnownElements();

/// Null when there is no such element.
[[nodiscard]] const TSKnownElement* FindElement(std::string_view tag);
/// Null when the element has no such attribute.
[[nodiscard]] const TSKnownAttribute* FindAttribute(const TSKnownElement& element, std::string_view name);

/// The candidate that takes the fewest edits to reach from `word`, letter case ignored; empty when none is
/// like it.
[[nodiscard]] std::string_view NearestOf(const std::vector<std::string_view>& candidates,
                                         const std::string& word);

}  // namespace zol
