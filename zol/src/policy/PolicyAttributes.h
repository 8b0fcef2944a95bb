#pragma once
/// What one XML element carries: its attributes with typed reads, and its text.
#include <cstdint>
#include <map>
#include <string>

namespace zol {

/// `text` with A to Z replaced by a to z; every other byte, UTF-8 included, stays.
std::string ToLowerAscii(std::string text);

/// The attributes of one element. Names are kept in lower case, so that documents may spell them as they
/// like; reads expect the lower-case name. A plain value, not thread-safe.
///
/// Every GetValue returns false and leaves `out` alone when there is no such attribute. Blanks in front of a
/// number are skipped as isspace() of the C locale knows them. Results are the same on 32- and 64-bit
/// machines.
class TCAttributes {
public:
    /// Adds an attribute or replaces the value of the one with this name, whatever its case.
    void Insert(const std::string& name, const std::string& value);

    /// The value as written. True.
    bool GetValue(const std::string& name, std::string& out) const;
    /// The decimal number the value begins with; text behind it is ignored. A value that does not begin with
    /// a number leaves `out` alone; one beyond 32 bits gives the nearest limit. True all the same.
    bool GetValue(const std::string& name, std::int32_t& out) const;
    /// As the signed read, its result taken modulo 2^32 ("-1" gives 4294967295).
    bool GetValue(const std::string& name, std::uint32_t& out) const;
    /// The decimal number the value begins with, read as 32-bit unsigned: more than 4294967295 gives
    /// 4294967295, a negative number counts modulo 2^32, no number gives 0. True.
    bool GetValue(const std::string& name, std::uint64_t& out) const;
    /// The whole value as a floating-point number; an empty one gives 0. False, and `out` untouched, when
    /// anything else stands in the value.
    bool GetValue(const std::string& name, double& out) const;
    /// False for "false" (in any case) and "0", true for everything else. True.
    bool GetValue(const std::string& name, bool& out) const;

    /// True when the attribute exists and equals `value`, ASCII case ignored.
    bool HasAttrOfValue(const std::string& name, const std::string& value) const;

private:
    const std::string* m_Find(const std::string& name) const;

    std::map<std::string, std::string> m_values;
};

/// Text of elements by element name, and the element that is being read. A plain value, not thread-safe.
class TCElements {
public:
    /// Keeps `data` as the text of element `name`; an earlier text of it is replaced.
    void InsertElementData(const std::string& name, const std::string& data);
    /// False, and `out` untouched, when nothing was kept for `name`.
    bool GetElementData(const std::string& name, std::string& out) const;

    void SetCurrentElement(const std::string& name);
    /// Empty between elements.
    void GetCurrentElement(std::string& out) const;

private:
    std::map<std::string, std::string> m_data;
    std::string m_current;
};

}  // namespace zol
