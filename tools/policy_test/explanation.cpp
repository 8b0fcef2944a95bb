#include "explanation.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <string_view>

#include "PolicyNames.h"
#include "event_items.h"
#include "values.h"

namespace policytest {
namespace {

using Texts = std::map<std::string, std::string>;

std::string Quoted(const std::string& text) {
    return '"' + text + '"';
}

std::string Missing(const std::string& what, const Texts& found, const std::string& name) {
    std::vector<std::string_view> known;
    std::transform(found.begin(), found.end(), std::back_inserter(known),
                   [](const auto& each) { return std::string_view(each.first); });
    const std::string meant(zol::NearestOf(known, name));
    return what + " has no " + name + (meant.empty() ? "" : " (did you mean " + meant + "?)");
}

std::string DifferenceOf(const std::string& what, const Texts& found, const Texts& expected) {
    const auto differs = [&found](const auto& each) {
        const auto there = found.find(each.first);
        return there == found.end() || there->second != each.second;
    };
    const auto first = std::find_if(expected.begin(), expected.end(), differs);
    if (first == expected.end()) {
        return {};
    }
    const auto& [name, value] = *first;
    const auto there = found.find(name);
    return there == found.end()
               ? Missing(what, found, name)
               : "the " + name + " of " + what + " is " + Quoted(there->second) + ", not " + Quoted(value);
}

/// The values of a rule by their names, as text.
class Values {
public:
    explicit Values(const zol::TSPolicyRule& rule) {
        for (const auto& [name, value] : rule) {
            m_values[name] = std::visit([](const auto& each) { return ToText(each); }, value);
        }
    }
    [[nodiscard]] bool Has(const std::string& name) const { return m_values.count(name) > 0; }
    [[nodiscard]] std::string operator[](const std::string& name) const {
        const auto found = m_values.find(name);
        return found == m_values.end() ? "" : found->second;
    }

private:
    static std::string ToText(const std::string& text) { return text; }
    static std::string ToText(bool flag) { return flag ? "true" : "false"; }
    template <typename Number>
    static std::string ToText(Number number) {
        return std::to_string(number);
    }

    std::map<std::string, std::string> m_values;
};

std::string ConditionOf(const Values& rule) {
    if (rule.Has("greater")) {
        return "BETWEEN " + rule["greater"] + " and " + rule["less"];
    }
    return rule["condition"] + " " + (rule.Has("strvalue") ? Quoted(rule["strvalue"]) : rule["intvalue"]);
}

std::string PresentOf(const Values& rule) {
    const std::string type = rule["value-type"];
    if (type == "none") {
        return "there is no such key";
    }
    if (!rule.Has("value")) {
        return "the key cannot be read";
    }
    const std::string value = type == "string" ? Quoted(rule["value"]) : rule["value"];
    const std::string holds = !rule.Has("holds")        ? "which is not compared"
                              : rule["holds"] == "true" ? "so it holds"
                                                        : "so it does not hold";
    return "the key is " + value + " (" + type + "), " + holds;
}

std::string DescribeKey(const Values& rule) {
    std::string text = rule["key"] + " " + ConditionOf(rule) + ": " + rule["state"];
    if (rule.Has("judged-by")) {
        text += ", judged by zols " + rule["judged-by"] + " alone when the key changes";
    }
    return text + "; " + PresentOf(rule);
}

std::string DescribeMonitor(const Values& rule) {
    std::string text = rule["kind"] + (rule.Has("id") ? " of " + rule["id"] : "") + ", method " +
                       rule["method"] + ": " + rule["state"] + "; counted " + rule["count"] + " of " +
                       rule["repetition"] + " within " + rule["period"] + " s";
    if (rule.Has("period-ends")) {
        text += ", which end at " + FormatMoment(std::stoll(rule["period-ends"]));
    }
    if (rule.Has("ignore")) {
        text += "; what comes within " + rule["ignore"] + " s of another is not counted";
    }
    return text;
}

std::string DescribeTexts(const std::string& what, const Texts& texts) {
    std::string text;
    for (const auto& [name, value] : texts) {
        text.append(", ").append(what).append(" ").append(name).append(" ").append(Quoted(value));
    }
    return text;
}

}  // namespace

std::string Describe(const Hit& hit) {
    return "a hit of " + hit.told.rule +
           (hit.told.value.empty() ? "" : " with value " + Quoted(hit.told.value)) + " at " +
           FormatMoment(hit.told.time);
}

std::string Describe(const ExpectedHit& hit) {
    return "a hit of " + *hit.rule + (hit.value ? " with value " + Quoted(*hit.value) : "") +
           (hit.at ? " at " + *hit.at : "") + (hit.report ? ", reported in " + *hit.report : "") +
           DescribeTexts("KPI item", hit.kpi) + DescribeTexts("header entry", hit.header);
}

std::string DifferenceOf(const Hit& hit, const ExpectedHit& expected) {
    const zol::TSPolicyHit& told = hit.told;
    if (told.rule != *expected.rule) {
        return "the rule is " + told.rule;
    }
    if (expected.value && told.value != *expected.value) {
        return "the value is " + Quoted(told.value) + ", not " + Quoted(*expected.value);
    }
    if (expected.at && !IsAt(FormatMoment(told.time), *expected.at)) {
        return "it came at " + FormatMoment(told.time) + ", not at " + *expected.at;
    }
    if (expected.report && told.report != *expected.report) {
        return "the report is " + told.report + ", not " + *expected.report;
    }
    std::string difference = DifferenceOf("the KPI event", reports::ItemsOf(hit.kpi), expected.kpi);
    return difference.empty() ? DifferenceOf("header.json", hit.header, expected.header) : difference;
}

std::string Describe(const zol::TSPolicyRule& rule) {
    const Values values(rule);
    const bool isKey = values["kind"] == "key";
    const bool isFirstSet = values["set"] == "1";
    return std::string(isKey ? "zols " : "monitor ") + values["item"] +
           (isFirstSet ? "" : " of policy " + values["set"]) + ": " +
           (isKey ? DescribeKey(values) : DescribeMonitor(values));
}

}  // namespace policytest
