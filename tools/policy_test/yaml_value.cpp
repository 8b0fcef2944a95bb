#include "yaml_value.h"

#include <yaml-cpp/depthguard.h>

#include <set>

#include "PolicyNames.h"

namespace policytest {
namespace {

Place PlaceOf(const std::string& file, const YAML::Mark& mark) {
    return mark.is_null() ? Place{file, 1, 1} : Place{file, mark.line + 1, mark.column + 1};
}

}  // namespace

void RefuseWord(const Place& place, const std::string& what, const std::string& word,
                const std::vector<std::string_view>& known) {
    const std::string text = what + " '" + word + "' is unknown";
    std::string hint(zol::NearestOf(known, word));
    if (!hint.empty()) {
        throw BadScenario(place, text, "did you mean " + hint + "?");
    }
    for (const std::string_view each : known) {
        hint.append(hint.empty() ? "known: " : ", ").append(each);
    }
    throw BadScenario(place, text, hint);
}

std::vector<YamlValue> YamlValue::ReadAll(const std::string& file, const std::string& text) {
    std::vector<YamlValue> documents;
    try {
        for (const YAML::Node& node : YAML::LoadAll(text)) {
            if (!node.IsNull()) {
                documents.push_back(YamlValue(file, node));
            }
        }
    } catch (const YAML::DeepRecursion& error) {
        throw BadScenario(PlaceOf(file, error.mark), "no scenario: nested too deeply");
    } catch (const YAML::Exception& error) {
        throw BadScenario(PlaceOf(file, error.mark), "no YAML: " + error.msg);
    }
    return documents;
}

YamlValue::YamlValue(const std::string& file, const YAML::Node& node)
    : m_place(PlaceOf(file, node.Mark())), m_node(node) {}

YamlValue::YamlValue(const YamlValue& name, const YAML::Node& node)
    : m_place(node.IsNull() ? name.m_place : PlaceOf(name.m_place.file, node.Mark())), m_node(node) {}

void YamlValue::Refuse(const std::string& text, std::string hint) const {
    throw BadScenario(At(), text, std::move(hint));
}

bool YamlValue::IsQuoted() const {
    return IsText() && m_node.Tag() != "?";
}

const std::string& YamlValue::Text(const std::string& what) const {
    if (!IsText()) {
        Refuse("expected " + what + ", not " + (IsList() ? "a list" : IsMap() ? "a mapping" : "nothing"));
    }
    return m_node.Scalar();
}

bool YamlValue::Flag(const std::string& what) const {
    const std::string& word = Text(what);
    if (word != "true" && word != "false") {
        Refuse(what + " is true or false, not '" + word + "'");
    }
    return word == "true";
}

std::vector<YamlValue> YamlValue::Items(const std::string& what) const {
    if (!IsList()) {
        Refuse("expected a list of " + what, "each begins with \"- \"");
    }
    std::vector<YamlValue> items;
    for (const YAML::Node& item : m_node) {
        items.push_back(YamlValue(m_place.file, item));
    }
    return items;
}

std::vector<std::pair<YamlValue, YamlValue>> YamlValue::Entries(const std::string& what) const {
    if (!IsMap()) {
        Refuse("expected " + what, "\"name: value\"");
    }
    std::vector<std::pair<YamlValue, YamlValue>> entries;
    std::set<std::string> names;
    for (const auto& entry : m_node) {
        YamlValue name(m_place.file, entry.first);
        if (!names.insert(name.Text("a name")).second) {
            name.Refuse("'" + name.Text("a name") + "' comes twice");
        }
        YamlValue value(name, entry.second);
        entries.emplace_back(std::move(name), std::move(value));
    }
    return entries;
}

}  // namespace policytest
