#include "expectation_reader.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "step_reader.h"
#include "values.h"

namespace policytest {
namespace {

constexpr const char* kNone = "none";

std::map<std::string, std::string> ReadTexts(const YamlValue& value, const std::string& what,
                                             Reading& reading) {
    std::map<std::string, std::string> texts;
    for (const auto& [name, text] : value.Entries(what)) {
        CountPart(name, reading);
        texts.emplace(name.Text("a name"), text.IsNull() ? "" : text.Text("a text"));
    }
    return texts;
}

std::string ReadAt(const YamlValue& value) {
    const std::string& text = value.Text("a time");
    std::optional<std::string> at = ParseTimeOrMoment(text);
    if (!at) {
        value.Refuse("'" + text + "' is no time", "such as 08:00:30 or 2026-01-31 08:00:30");
    }
    return *at;
}

void ReadEntry(ExpectedHit& hit, const YamlValue& name, const YamlValue& value, Reading& reading) {
    const std::string& word = name.Text("a name");
    if (word == "rule") {
        hit.rule = value.Text("a key, the id of an application, or pairing");
    } else if (word == "value") {
        hit.value = value.Text("the value that is reported");
    } else if (word == "at") {
        hit.at = ReadAt(value);
    } else if (word == "report") {
        hit.report = value.Text("the path of the report's folder");
    } else if (word == "kpi") {
        hit.kpi = ReadTexts(value, "items of the KPI event", reading);
    } else if (word == "header") {
        hit.header = ReadTexts(value, "entries of header.json", reading);
    } else {
        RefuseWord(name.At(), "entry of a hit", word, {"rule", "value", "at", "report", "kpi", "header"});
    }
}

ExpectedHit ReadHit(const YamlValue& value, Reading& reading) {
    CountPart(value, reading);
    ExpectedHit hit;
    hit.place = value.At();
    if (value.IsText()) {
        hit.rule = value.Text("a rule");
        if (*hit.rule == kNone && !value.IsQuoted()) {
            value.Refuse("none stands alone", "\"- expect: none\"");
        }
        return hit;
    }
    for (const auto& [name, entry] : value.Entries("what comes of a hit")) {
        ReadEntry(hit, name, entry, reading);
    }
    if (!hit.rule) {
        value.Refuse("a hit has a rule", "\"rule: \" and a key, the id of an application, or pairing");
    }
    return hit;
}

int ReadCount(const YamlValue& value) {
    const std::optional<KeyValue> read = ParseKeyValue(value.Text("a number of rules"));
    const int* const number = read ? std::get_if<int>(&*read) : nullptr;
    if (number == nullptr || *number < 0) {
        value.Refuse("expected a number of rules, not '" + value.Text("") + "'");
    }
    return *number;
}

}  // namespace

std::int64_t ReadMoment(const YamlValue& value) {
    const std::string& text = value.Text("a moment");
    const std::optional<std::int64_t> moment = ParseMoment(text);
    if (!moment) {
        value.Refuse("'" + text + "' is no moment", "such as 2026-01-31 08:00:30, from 1970 on");
    }
    return *moment;
}

ExpectHits ReadExpectedHits(const YamlValue& value, Reading& reading) {
    ExpectHits expected;
    if (value.IsText() && value.Text("") == kNone && !value.IsQuoted()) {
        return expected;
    }
    if (value.IsNull()) {
        value.Refuse("what is expected?", "none, a hit or a list of hits");
    }
    if (!value.IsList()) {
        expected.hits.push_back(ReadHit(value, reading));
        return expected;
    }
    for (const YamlValue& hit : value.Items("hits")) {
        expected.hits.push_back(ReadHit(hit, reading));
    }
    if (expected.hits.empty()) {
        value.Refuse("an empty list of hits", "\"- expect: none\"");
    }
    return expected;
}

ExpectState ReadExpectedState(const YamlValue& value) {
    ExpectState state;
    for (const auto& [name, entry] : value.Entries("how the policy stands")) {
        const std::string& word = name.Text("a name");
        if (word == "monitoring") {
            state.isMonitoring = entry.Flag("monitoring");
        } else if (word == "watched") {
            state.watched = ReadCount(entry);
        } else if (word == "dropped") {
            state.dropped = ReadCount(entry);
        } else if (word == "expires") {
            const bool isNone = entry.IsText() && entry.Text("") == kNone;
            state.expires = isNone ? kNone : FormatMoment(ReadMoment(entry));
        } else {
            RefuseWord(name.At(), "entry of a state", word, {"monitoring", "watched", "dropped", "expires"});
        }
    }
    return state;
}

}  // namespace policytest
