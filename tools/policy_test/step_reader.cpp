#include "step_reader.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "document.h"
#include "expectation_reader.h"
#include "values.h"

namespace policytest {
namespace {

/// Played in about a minute.
constexpr std::size_t kMaxParts = 100000;
constexpr std::size_t kMaxKeyBytes = std::size_t{16} * 1024 * 1024;

using ReadAction = Action (*)(const YamlValue& value, Reading& reading);

struct KnownStep {
    std::string_view word;
    ReadAction read;
};

std::chrono::nanoseconds ReadLength(const YamlValue& value) {
    const std::string& text = value.Text("a length of time");
    const std::optional<std::chrono::nanoseconds> length = ParseLength(text);
    if (!length) {
        value.Refuse("'" + text + "' is no length of time",
                     "such as 90 s, 5 min or 1 h 30 min, at most " + FormatLength(kLongestTime));
    }
    return *length;
}

std::chrono::seconds ReadSeconds(const YamlValue& value) {
    const std::chrono::nanoseconds length = ReadLength(value);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(length);
    if (seconds != length) {
        value.Refuse("expected whole seconds");
    }
    return seconds;
}

void RefuseArgument(const YamlValue& value) {
    if (!value.IsNull()) {
        value.Refuse("expected nothing");
    }
}

std::string ReadId(const YamlValue& value) {
    const std::string& id = value.Text("the id of an application");
    if (id.empty()) {
        value.Refuse("expected the id of an application");
    }
    return id;
}

constexpr std::array<KnownStep, 14> kSteps{{
    {"set",
     [](const YamlValue& value, Reading& reading) -> Action { return SetKeys{ReadKeys(value, reading)}; }},
    {"connect",
     [](const YamlValue& value, Reading&) -> Action {
         return ConnectRemote{true, value.IsNull() ? "" : value.Text("the address of a remote")};
     }},
    {"disconnect",
     [](const YamlValue& value, Reading&) -> Action {
         return ConnectRemote{false, value.IsNull() ? "" : value.Text("the address of a remote")};
     }},
    {"install",
     [](const YamlValue& value, Reading&) -> Action {
         return InstallApp{ReadId(value), true};
     }},
    {"uninstall",
     [](const YamlValue& value, Reading&) -> Action {
         return InstallApp{ReadId(value), false};
     }},
    {"pass", [](const YamlValue& value, Reading&) -> Action { return PassTime{ReadLength(value)}; }},
    {"clock", [](const YamlValue& value, Reading&) -> Action { return SetClock{ReadMoment(value)}; }},
    {"standby", [](const YamlValue& value, Reading&) -> Action { return StandBy{ReadSeconds(value)}; }},
    {"off", [](const YamlValue& value, Reading&) -> Action { return Restart{ReadSeconds(value)}; }},
    {"restart",
     [](const YamlValue& value, Reading&) -> Action {
         RefuseArgument(value);
         return Restart{};
     }},
    {"policy",
     [](const YamlValue& value, Reading& reading) -> Action { return HandOver{ReadPolicy(value, reading)}; }},
    {"expect",
     [](const YamlValue& value, Reading& reading) -> Action { return ReadExpectedHits(value, reading); }},
    {"holds",
     [](const YamlValue& value, Reading& reading) -> Action { return ExpectKeys{ReadKeys(value, reading)}; }},
    {"state", [](const YamlValue& value, Reading&) -> Action { return ReadExpectedState(value); }},
}};

const KnownStep& FindStep(const YamlValue& name) {
    const std::string& word = name.Text("the name of a step");
    const auto* const found = std::find_if(kSteps.begin(), kSteps.end(),
                                           [&word](const KnownStep& step) { return step.word == word; });
    if (found == kSteps.end()) {
        std::vector<std::string_view> known;
        std::transform(kSteps.begin(), kSteps.end(), std::back_inserter(known),
                       [](const KnownStep& step) { return step.word; });
        RefuseWord(name.At(), "step", word, known);
    }
    return *found;
}

/// A word and nothing more.
Step ReadBareStep(const YamlValue& value) {
    const std::string word(FindStep(value).word);
    if (word == "restart") {
        return {value.At(), word, Restart{}};
    }
    if (word == "connect" || word == "disconnect") {
        return {value.At(), word, ConnectRemote{word == "connect", ""}};
    }
    value.Refuse("'" + word + "' does not say what", "\"- " + word + ": ...\"");
}

/// Spaces before the first line of a block of text that begins behind line `line`.
int IndentationBehind(const std::string& text, int line) {
    std::size_t at = 0;
    for (int passed = 0; passed < line && at != std::string::npos; ++passed) {
        at = text.find('\n', at);
        at += at == std::string::npos ? 0 : 1;
    }
    const std::size_t first = at == std::string::npos ? at : text.find_first_not_of(" \n", at);
    if (first == std::string::npos) {
        return 0;
    }
    const std::size_t lineStart = text.rfind('\n', first) + 1;
    return static_cast<int>(first - lineStart);
}

PolicyText InlinePolicy(const YamlValue& value, const Reading& reading) {
    const Place& place = value.At();
    const std::string& text = value.Text("a policy");
    // Aliases of one share it. No path is like a policy.
    std::shared_ptr<const std::string>& known = (*reading.policies)[text];
    if (known == nullptr) {
        known = std::make_shared<std::string>(text);
    }
    PolicyText policy{place, place.file, known, place.line - 1, place.column - (value.IsQuoted() ? 0 : 1)};
    if (!value.IsQuoted() || policy.xml->find('\n') == std::string::npos) {
        return policy;
    }
    // A block: it begins in the line behind its mark, and the indentation is not part of it.
    policy.lineOffset = place.line;
    policy.columnOffset = IndentationBehind(reading.text, place.line);
    return policy;
}

/// Where the file of a policy lies that a scenario names.
std::string PathBeside(const std::string& scenario, const std::string& name) {
    const std::filesystem::path path(name);
    return path.is_absolute() ? name : (std::filesystem::path(scenario).parent_path() / path).string();
}

}  // namespace

void CountPart(const YamlValue& value, Reading& reading) {
    if (++reading.parts > kMaxParts) {
        value.Refuse("more than " + std::to_string(kMaxParts) +
                     " steps, keys, expected hits and entries of them in one file");
    }
}

PolicyText ReadPolicy(const YamlValue& value, Reading& reading) {
    const std::string& text = value.Text("the file of a policy, or the policy itself");
    if (text.find_first_of("<\n") != std::string::npos) {
        return InlinePolicy(value, reading);
    }
    const std::string path = PathBeside(value.At().file, text);
    std::shared_ptr<const std::string>& known = (*reading.policies)[path];
    if (known == nullptr) {
        auto xml = std::make_shared<std::string>();
        if (const zolctl::Unreadable why = zolctl::ReadRegularDocument(path, *xml); !why.empty()) {
            value.Refuse(why);
        }
        known = std::move(xml);
    }
    return {value.At(), path, known, 0, 0};
}

Keys ReadKeys(const YamlValue& value, Reading& reading) {
    Keys keys;
    for (const auto& [name, content] : value.Entries("keys")) {
        const std::string& key = name.Text("the name of a key");
        if (key.empty()) {
            name.Refuse("expected the name of a key");
        }
        CountPart(name, reading);
        if (content.IsNull()) {
            keys.emplace_back(key, KeyValue());
            continue;
        }
        const std::string& text = content.Text("the value of a key");
        reading.keyBytes += key.size() + text.size();
        if (reading.keyBytes > kMaxKeyBytes) {
            content.Refuse("more than " + std::to_string(kMaxKeyBytes) +
                           " bytes of keys and values in one file");
        }
        const std::optional<KeyValue> read = content.IsQuoted() ? KeyValue(text) : ParseKeyValue(text);
        if (!read) {
            content.Refuse("no key holds the integer " + text,
                           "a key has 32 bits; in quotation marks it is a text");
        }
        keys.emplace_back(key, *read);
    }
    return keys;
}

Step ReadStep(const YamlValue& value, Reading& reading) {
    CountPart(value, reading);
    if (value.IsText()) {
        return ReadBareStep(value);
    }
    const auto entries = value.Entries("a step");
    if (entries.size() != 1) {
        value.Refuse("a step has one name, this one has " + std::to_string(entries.size()),
                     "begin each step with \"- \"");
    }
    const KnownStep& known = FindStep(entries.front().first);
    return {value.At(), std::string(known.word), known.read(entries.front().second, reading)};
}

}  // namespace policytest
