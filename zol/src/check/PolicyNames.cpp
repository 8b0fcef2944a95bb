#include "PolicyNames.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

#include "PolicyAttributes.h"

namespace zol {
namespace {

constexpr auto kText = EAttributeType::TEXT;
constexpr auto kInt = EAttributeType::INT;

/// Longer words are like none of ours.
constexpr std::size_t kMaxWord = 64;

/// How many characters must be put in, taken out or replaced to make one word of the other.
std::size_t EditDistance(std::string_view left, std::string_view right) {
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < left.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < right.size(); ++j) {
            const std::size_t replaced = diagonal + (left[i] == right[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

}  // namespace

const std::vector<TSKnownElement>& KnownElements() {
    static const std::vector<TSKnownElement> known{{kRootTag, {{"numofzol", kInt}}},
                                                   {kExpiryTag, {{"time", EAttributeType::SECONDS}}},
                                                   {kRuleTag,
                                                    {{"key", kText},
                                                     {"condition", kText},
                                                     {"type", kText},
                                                     {"intvalue", kInt},
                                                     {"strvalue", kText},
                                                     {"greater", kInt},
                                                     {"less", kInt}}},
                                                   {kMonitorTag,
                                                    {{"kind", kInt},
                                                     {"id", kText},
                                                     {"name", kText},
                                                     {"method", kInt},
                                                     {"duration", kInt},
                                                     {"repetition", kInt},
                                                     {"reserve1", kText}}}};
    return known;
}

const TSKnownElement* FindElement(std::string_view tag) {
    for (const TSKnownElement& known : KnownElements()) {
        if (known.tag == tag) {
            return &known;
        }
    }
    return nullptr;
}

const TSKnownAttribute* FindAttribute(const TSKnownElement& element, std::string_view name) {
    for (const TSKnownAttribute& known : element.attributes) {
        if (known.name == name) {
            return &known;
        }
    }
    return nullptr;
}

std::string_view NearestOf(const std::vector<std::string_view>& candidates, const std::string& word) {
    std::string_view nearest;
    if (word.size() > kMaxWord) {
        return nearest;
    }
    const std::string lower = ToLowerAscii(word);
    std::size_t least = kMaxWord;
    for (const std::string_view candidate : candidates) {
        const std::size_t distance = EditDistance(lower, ToLowerAscii(std::string(candidate)));
        // A third of the letters may be wrong, in short words one.
        const std::size_t most = std::max<std::size_t>(1, std::max(lower.size(), candidate.size()) / 3);
        if (distance <= most && distance < least) {
            least = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

}  // namespace zol
