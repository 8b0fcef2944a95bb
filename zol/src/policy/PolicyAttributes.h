#pragma once
/// What one XML element carries: its attributes with typed reads, and its text.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace zol {

/// `text` with A to Z replaced by a to z; every other byte, UTF-8 included, stays.
std::string ToLowerAscii(std::string text);
/// The same into `out`, whose memory is used again.
void AssignLowerAscii(std::string& out, std::string_view text);

/// The attributes of one element. Names are kept in lower case, so that documents may spell them as they
/// like; reads expect the lower-case name. A plain value, not thread-safe.
///
/// Every GetValue returns false and leaves `out` alone when there is no such attribute. Blanks in front of a
/// number are skipped as isspace() of the C locale knows them. Results are the same on 32- and 64-bit
/// machines.
class TCAttributes {
public:
    /// Forgets all of them; keeps the memory for those of the next element.
    void Clear() { m_count = 0; }

    /// Adds an attribute or replaces the value of the one with this name, whatever its case.
    void Insert(std::string_view name, std::string_view value);

    /// The value as written. True.
    bool GetValue(std::string_view name, std::string& out) const;
    /// The decimal number the value begins with; text behind it is ignored. A value that does not begin with
    /// a number leaves `out` alone; one beyond 32 bits gives the nearest limit. True all the same.
    bool GetValue(std::string_view name, std::int32_t& out) const;
    /// As the signed read, its result taken modulo 2^32 ("-1" gives 4294967295).
    bool GetValue(std::string_view name, std::uint32_t& out) const;
    /// The decimal number the value begins with, read as 32-bit unsigned: more than 4294967295 gives
    /// 4294967295, a negative number counts modulo 2^32, no number gives 0. True.
    bool GetValue(std::string_view name, std::uint64_t& out) const;
    /// The whole value as a floating-point number; an empty one gives 0. False, and `out` untouched, when
    /// anything else stands in the value.
    bool GetValue(std::string_view name, double& out) const;
    /// False for "false" (in any case) and "0", true for everything else. True.
    bool GetValue(std::string_view name, bool& out) const;

    /// True when the attribute exists and equals `value`, ASCII case ignored.
    bool HasAttrOfValue(std::string_view name, std::string_view value) const;

private:
    struct TSAttribute {
        std::string name;
        std::string value;
    };

    const std::string* m_Find(std::string_view name) const;

    // In the order of the document; those behind the first m_count lend their memory to what comes.
    std::vector<TSAttribute> m_attributes;
    std::size_t m_count = 0;
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
