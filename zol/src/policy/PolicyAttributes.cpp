#include "PolicyAttributes.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace zol {
namespace {

constexpr std::uint64_t kMaxUint32 = std::numeric_limits<std::uint32_t>::max();

bool IsBlank(char c) {
    return c != '\0' && std::strchr(" \t\n\v\f\r", c) != nullptr;
}

char LowerAscii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char one, char other) { return LowerAscii(one) == LowerAscii(other); });
}

/// Blanks, one sign and digits at the front of a text.
struct Number {
    bool found = false;
    bool negative = false;
    std::uint64_t magnitude = 0;  ///< 2^32 when it is more than 32 bits hold
};

// The C library's readers answer in `long`, whose width is not the same on the device and on a developer's
// machine, and leave an overflowing "%d" undefined; a policy must mean the same everywhere.
Number ReadNumber(const std::string& text) {
    Number number;
    auto position = std::find_if_not(text.begin(), text.end(), IsBlank);
    if (position != text.end() && (*position == '-' || *position == '+')) {
        number.negative = *position == '-';
        ++position;
    }
    for (; position != text.end() && *position >= '0' && *position <= '9'; ++position) {
        number.found = true;
        const auto digit = static_cast<std::uint64_t>(*position - '0');
        number.magnitude = std::min(number.magnitude * 10 + digit, kMaxUint32 + 1);
    }
    return number;
}

std::int32_t Clamp(const Number& number) {
    const auto magnitude = static_cast<std::int64_t>(number.magnitude);
    const std::int64_t value = number.negative ? -magnitude : magnitude;
    const std::int64_t lowest = std::numeric_limits<std::int32_t>::min();
    const std::int64_t highest = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(std::clamp(value, lowest, highest));
}

}  // namespace

std::string ToLowerAscii(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), LowerAscii);
    return text;
}

void AssignLowerAscii(std::string& out, std::string_view text) {
    out.resize(text.size());
    std::transform(text.begin(), text.end(), out.begin(), LowerAscii);
}

void TCAttributes::Insert(std::string_view name, std::string_view value) {
    if (m_count == m_attributes.size()) {
        m_attributes.emplace_back();
    }
    TSAttribute& attribute = m_attributes[m_count];
    AssignLowerAscii(attribute.name, name);
    attribute.value = value;
    ++m_count;
}

const std::string* TCAttributes::m_Find(std::string_view name) const {
    // Of two with one name the later one counts.
    for (std::size_t at = m_count; at > 0; --at) {
        if (m_attributes[at - 1].name == name) {
            return &m_attributes[at - 1].value;
        }
    }
    return nullptr;
}

bool TCAttributes::GetValue(std::string_view name, std::string& out) const {
    const std::string* value = m_Find(name);
    if (value == nullptr) {
        return false;
    }
    out = *value;
    return true;
}

bool TCAttributes::GetValue(std::string_view name, std::int32_t& out) const {
    const std::string* value = m_Find(name);
    if (value == nullptr) {
        return false;
    }
    const Number number = ReadNumber(*value);
    if (number.found) {
        out = Clamp(number);
    }
    return true;
}

bool TCAttributes::GetValue(std::string_view name, std::uint32_t& out) const {
    auto number = static_cast<std::int32_t>(out);
    const bool found = GetValue(name, number);
    out = static_cast<std::uint32_t>(number);
    return found;
}

bool TCAttributes::GetValue(std::string_view name, std::uint64_t& out) const {
    const std::string* value = m_Find(name);
    if (value == nullptr) {
        return false;
    }
    const Number number = ReadNumber(*value);
    if (number.magnitude > kMaxUint32) {
        out = kMaxUint32;
    } else {
        out = (number.negative ? 0 - number.magnitude : number.magnitude) & kMaxUint32;
    }
    return true;
}

bool TCAttributes::GetValue(std::string_view name, double& out) const {
    const std::string* value = m_Find(name);
    if (value == nullptr) {
        return false;
    }
    char* end = nullptr;
    const double number = std::strtod(value->c_str(), &end);
    if (*end != '\0') {
        return false;
    }
    out = number;
    return true;
}

bool TCAttributes::GetValue(std::string_view name, bool& out) const {
    const std::string* value = m_Find(name);
    if (value == nullptr) {
        return false;
    }
    out = !EqualIgnoringCase(*value, "false") && *value != "0";
    return true;
}

bool TCAttributes::HasAttrOfValue(std::string_view name, std::string_view value) const {
    const std::string* found = m_Find(name);
    return found != nullptr && EqualIgnoringCase(*found, value);
}

void TCElements::InsertElementData(const std::string& name, const std::string& data) {
    m_data[name] = data;
}

bool TCElements::GetElementData(const std::string& name, std::string& out) const {
    const auto found = m_data.find(name);
    if (found == m_data.end()) {
        return false;
    }
    out = found->second;
    return true;
}

void TCElements::SetCurrentElement(const std::string& name) {
    m_current = name;
}

void TCElements::GetCurrentElement(std::string& out) const {
    out = m_current;
}

}  // namespace zol
