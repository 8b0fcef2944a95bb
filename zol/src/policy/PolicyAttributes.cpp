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

bool EqualIgnoringCase(const std::string& left, const std::string& right) {
    return left.size() == right.size() && ToLowerAscii(left) == ToLowerAscii(right);
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
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

void TCAttributes::Insert(const std::string& name, const std::string& value) {
    m_values[ToLowerAscii(name)] = value;
}

const std::string* TCAttributes::m_Find(const std::string& name) const {
    const auto found = m_values.find(name);
    return found != m_values.end() ? &found->second : nullptr;
}

bool TCAttributes::GetValue(const std::string& name, std::string& out) const {
    const std::string* value = m_Find(name);
    if (value == nullptr) {
        return false;
    }
    out = *value;
    return true;
}

bool TCAttributes::GetValue(const std::string& name, std::int32_t& out) const {
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

bool TCAttributes::GetValue(const std::string& name, std::uint32_t& out) const {
    auto number = static_cast<std::int32_t>(out);
    const bool found = GetValue(name, number);
    out = static_cast<std::uint32_t>(number);
    return found;
}

bool TCAttributes::GetValue(const std::string& name, std::uint64_t& out) const {
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

bool TCAttributes::GetValue(const std::string& name, double& out) const {
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

bool TCAttributes::GetValue(const std::string& name, bool& out) const {
    const std::string* value = m_Find(name);
    if (value == nullptr) {
        return false;
    }
    out = !EqualIgnoringCase(*value, "false") && *value != "0";
    return true;
}

bool TCAttributes::HasAttrOfValue(const std::string& name, const std::string& value) const {
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
