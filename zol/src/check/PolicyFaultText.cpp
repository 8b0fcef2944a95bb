#include "PolicyFaultText.h"

#include <vector>

#include "PolicyFindings.h"
#include "PolicyNames.h"
#include "PolicyWords.h"

namespace zol {
namespace {

bool IsGiven(const TCAttributes& values, const char* name) {
    std::string value;
    return values.GetValue(name, value);
}

/// A value that is none of the words it can be.
template <std::size_t N>
TSExplanation NoWord(const char* name, const TCAttributes& values, const std::array<TSWord, N>& words) {
    std::vector<std::string_view> known;
    std::string list;
    for (const TSWord& word : words) {
        known.push_back(word.word);
        list += (list.empty() ? "" : ", ") + std::string(word.word);
    }
    std::string value;
    if (!values.GetValue(name, value)) {
        return {std::string(name) + " is missing", "one of " + list};
    }
    const std::string_view nearest = NearestOf(known, value);
    return {std::string(name) + " " + Quoted(value) + " is unknown",
            nearest.empty() ? "one of " + list : "did you mean " + std::string(nearest) + "?"};
}

TSExplanation NoIntValue(const ZOLVconfMonitor& item, const TCAttributes& values) {
    const std::string needed = item.condition + " compares with intvalue, which ";
    const char* bound = item.condition == "GREATER" ? "greater" : "less";
    std::string value;
    if (item.condition != "IS" && item.condition != "NOT" && values.GetValue(bound, value)) {
        return {needed + "is missing", "intvalue=" + Quoted(value) + " instead of " + bound};
    }
    std::int32_t other = 0;
    values.GetValue("intvalue", other);
    if (other != -1) {
        return {needed + (IsGiven(values, "intvalue") ? "is no number" : "is missing"), {}};
    }
    return {needed + "is -1, and that stands for \"not given\"",
            item.condition == "IS" ? "BETWEEN with greater='-2' and less='0' holds for -1 alone" : ""};
}

TSExplanation NoStrValue(const TCAttributes& values) {
    return IsGiven(values, "strvalue")
               ? TSExplanation{"strvalue is 'null', and that stands for \"not given\"", {}}
               : TSExplanation{"strvalue is missing", {}};
}

TSExplanation WrongMethod(const ZOLPolicyMonitor& item, const TCAttributes& values, const char* methods) {
    const std::string given =
        IsGiven(values, "method") ? "not " + std::to_string(item.method) : "and none is given";
    return {"kind " + std::to_string(item.type) + " has method " + methods + ", " + given, {}};
}

TSExplanation Empty(const char* name, const TCAttributes& values) {
    return {std::string(name) + (IsGiven(values, name) ? " is empty" : " is missing"), {}};
}

}  // namespace

TSExplanation Explain(EPolicyFault fault, const ZOLVconfMonitor& item, const TCAttributes& values) {
    switch (fault) {
        case EPolicyFault::CONDITION:
            return NoWord("condition", values, kConditionWords);
        case EPolicyFault::VALUE_TYPE:
            return NoWord("type", values, kValueTypeWords);
        case EPolicyFault::NO_INT_VALUE:
            return NoIntValue(item, values);
        case EPolicyFault::NO_BOUNDS:
            return {"BETWEEN needs a bound other than -1", "give it greater and less"};
        case EPolicyFault::STRING_CONDITION:
            return {"a STRING cannot be compared with " + item.condition, "IS or NOT"};
        case EPolicyFault::NO_STR_VALUE:
            return NoStrValue(values);
        default:
            return {};
    }
}

TSExplanation Explain(EPolicyFault fault, const ZOLPolicyMonitor& item, const TCAttributes& values) {
    switch (fault) {
        case EPolicyFault::MONITORING_TYPE:
            return {IsGiven(values, "kind") ? "kind " + std::to_string(item.type) + " is unknown"
                                            : "kind is missing",
                    "1 app install, 3 remote pairing"};
        case EPolicyFault::APP_INSTALL_METHOD:
            return WrongMethod(item, values, "11");
        case EPolicyFault::APP_LAUNCH_METHOD:
            return WrongMethod(item, values, "21");
        case EPolicyFault::BT_PAIR_METHOD:
            return WrongMethod(item, values, "31 or 32");
        case EPolicyFault::NO_ID:
            return Empty("id", values);
        case EPolicyFault::NO_NAME:
            return Empty("name", values);
        default:
            return {};
    }
}

}  // namespace zol
