#pragma once
/// Trap conditions: values worth marking in a recording. docs/tracing.md describes their file.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cv/TSCallItem.h"

namespace cv {

enum class ETrapOperator : std::uint8_t {
    EQUAL,
    NOT_EQUAL,
    LESS,
    LESS_OR_EQUAL,
    GREATER,
    GREATER_OR_EQUAL,
    BEGINS,   ///< texts only
    CONTAINS  ///< texts only
};

/// One condition on one item. Immutable once loaded; any thread.
struct TSTrapItem {
    std::string name;
    unsigned itemIndex = 0;
    EItemKind kind = EItemKind::SIGNED;  ///< the form of the value that is compared
    ETrapOperator op = ETrapOperator::EQUAL;
    std::int64_t signedValue = 0;
    std::uint64_t unsignedValue = 0;
    std::string text;

    /// Whether the value meets the condition. False when the condition compares another form.
    bool EvaluateResult(std::int64_t value) const noexcept;
    bool EvaluateResult(std::uint64_t value) const noexcept;
    bool EvaluateResult(std::string_view value) const noexcept;
};

/// The conditions of one call site. Immutable once loaded; any thread.
class TSTrapCondition {
public:
    /// @param site "<source file without folder and ending>:<function>"
    explicit TSTrapCondition(std::string site);

    const std::string& Site() const { return m_site; }
    bool Matches(const TSSourceLocation& location) const noexcept;

    void Add(TSTrapItem item);
    /// True when there are conditions on the item.
    bool ItemExists(unsigned index) const noexcept;
    /// The conditions on the item; none when it does not exist.
    const std::vector<TSTrapItem>& GetItemsByIndex(unsigned index) const noexcept;

private:
    std::string m_site;
    std::vector<TSTrapItem> m_items[TSEvent::MAX_ITEMS];
    std::vector<TSTrapItem> m_none;  // stays empty: the conditions of every other index
};

}  // namespace cv
