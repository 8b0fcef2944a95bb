#pragma once
/// A YAML document whose every part knows where it stands. What is not as it should be throws BadScenario.
#include <yaml-cpp/yaml.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "scenario.h"

namespace policytest {

/// Throws that a word is none of those that are known.
[[noreturn]] void RefuseWord(const Place& place, const std::string& what, const std::string& word,
                             const std::vector<std::string_view>& known);

class YamlValue {
public:
    /// The documents of one text, without those that are empty.
    static std::vector<YamlValue> ReadAll(const std::string& file, const std::string& text);

    [[nodiscard]] const Place& At() const { return m_place; }
    [[noreturn]] void Refuse(const std::string& text, std::string hint = {}) const;

    [[nodiscard]] bool IsNull() const { return m_node.IsNull(); }
    [[nodiscard]] bool IsMap() const { return m_node.IsMap(); }
    [[nodiscard]] bool IsList() const { return m_node.IsSequence(); }
    [[nodiscard]] bool IsText() const { return m_node.IsScalar(); }
    /// Whether a text stands in quotation marks.
    [[nodiscard]] bool IsQuoted() const;

    /// @param what for the message when it is no text, such as "a name"
    [[nodiscard]] const std::string& Text(const std::string& what) const;
    [[nodiscard]] bool Flag(const std::string& what) const;
    [[nodiscard]] std::vector<YamlValue> Items(const std::string& what) const;
    /// In their order; no name comes twice.
    [[nodiscard]] std::vector<std::pair<YamlValue, YamlValue>> Entries(const std::string& what) const;

private:
    YamlValue(const std::string& file, const YAML::Node& node);
    /// What `name` names: where that is nothing, it stands where the name does.
    YamlValue(const YamlValue& name, const YAML::Node& node);

    Place m_place;
    YAML::Node m_node;
};

}  // namespace policytest
