#include "cv/TSTrap.h"

#include <cstring>
#include <utility>

namespace cv {
namespace {

template <class Value>
bool Compare(ETrapOperator op, const Value& value, const Value& limit) noexcept {
    switch (op) {
        case ETrapOperator::EQUAL:
            return value == limit;
        case ETrapOperator::NOT_EQUAL:
            return value != limit;
        case ETrapOperator::LESS:
            return value < limit;
        case ETrapOperator::LESS_OR_EQUAL:
            return value <= limit;
        case ETrapOperator::GREATER:
            return value > limit;
        case ETrapOperator::GREATER_OR_EQUAL:
            return value >= limit;
        case ETrapOperator::BEGINS:
        case ETrapOperator::CONTAINS:
            return false;
    }
    return false;
}

std::string_view SourceName(const char* path) {
    std::string_view name = path;
    name.remove_prefix(name.rfind('/') + 1);  // npos + 1 is 0
    return name.substr(0, name.rfind('.'));
}

}  // namespace

bool TSTrapItem::EvaluateResult(std::int64_t value) const noexcept {
    return kind == EItemKind::SIGNED && Compare(op, value, signedValue);
}

bool TSTrapItem::EvaluateResult(std::uint64_t value) const noexcept {
    return kind == EItemKind::UNSIGNED && Compare(op, value, unsignedValue);
}

bool TSTrapItem::EvaluateResult(std::string_view value) const noexcept {
    if (kind != EItemKind::TEXT) {
        return false;
    }
    const std::string_view wanted = text;
    if (op == ETrapOperator::BEGINS) {
        return value.substr(0, wanted.size()) == wanted;
    }
    return op == ETrapOperator::CONTAINS ? value.find(wanted) != std::string_view::npos
                                         : Compare(op, value, wanted);
}

TSTrapCondition::TSTrapCondition(std::string site) : m_site(std::move(site)) {}

bool TSTrapCondition::Matches(const TSSourceLocation& location) const noexcept {
    const std::string_view site = m_site;
    const std::string_view source = SourceName(location.file);
    return site.size() > source.size() && site.substr(0, source.size()) == source &&
           site[source.size()] == ':' && site.substr(source.size() + 1) == location.function;
}

void TSTrapCondition::Add(TSTrapItem item) {
    m_items[item.itemIndex].push_back(std::move(item));
}

bool TSTrapCondition::ItemExists(unsigned index) const noexcept {
    return !GetItemsByIndex(index).empty();
}

const std::vector<TSTrapItem>& TSTrapCondition::GetItemsByIndex(unsigned index) const noexcept {
    return index < TSEvent::MAX_ITEMS ? m_items[index] : m_none;
}

}  // namespace cv
