#include "findings.h"

#include <glib.h>

#include <algorithm>
#include <ostream>
#include <string_view>

#include "base/glib_handles.h"
#include "text.h"

namespace zolctl {
namespace {

using tools::Printable;
using zol::TSPolicyFinding;

constexpr const char* kBold = "\033[1m";
constexpr const char* kRed = "\033[1;31m";
constexpr const char* kYellow = "\033[1;33m";
constexpr const char* kPlain = "\033[0m";

/// How much of a long line is shown, in characters, and how much of it stands before the place.
constexpr std::size_t kShownCharacters = 100;
constexpr std::size_t kShownBefore = 40;

const char* Severity(const TSPolicyFinding& finding) {
    return finding.isError ? "error" : "warning";
}

std::string Told(const TSPolicyFinding& finding) {
    return Printable(finding.text) + (finding.hint.empty() ? "" : " (" + Printable(finding.hint) + ")");
}

std::string PlaceOf(const std::string& file, const TSPolicyFinding& finding) {
    return Printable(file) + ":" + std::to_string(finding.line) + ":" + std::to_string(finding.column) + ":";
}

/// The lines of a document, which end as XML has it. Asked for in their order, they are found in one pass.
class Lines {
public:
    explicit Lines(std::string_view text) : m_text(text), m_rest(text) {}

    /// @param number from 1. @return empty behind the end
    std::string_view At(unsigned number) {
        if (number < m_number) {
            m_rest = m_text;
            m_number = 1;
        }
        for (; m_number < number; ++m_number) {
            const std::size_t end = m_rest.find_first_of("\r\n");
            if (end == std::string_view::npos) {
                return {};
            }
            m_rest.remove_prefix(end + (m_rest.substr(end, 2) == "\r\n" ? 2 : 1));
        }
        return m_rest.substr(0, m_rest.find_first_of("\r\n"));
    }

private:
    std::string_view m_text;
    std::string_view m_rest;  // from line m_number on
    unsigned m_number = 1;
};

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// The line with a mark below the place; of a long line what stands around it.
void PrintSource(std::ostream& out, std::string_view line, unsigned place) {
    const auto characters = static_cast<std::size_t>(
        std::count_if(line.begin(), line.end(), [](char byte) { return !IsContinuation(byte); }));
    const std::size_t column = place - 1;
    if (column > characters || line.empty()) {
        return;
    }
    const std::size_t begin =
        characters > kShownCharacters && column > kShownBefore ? column - kShownBefore : 0;
    std::string shown;
    std::size_t number = 0;
    for (const char byte : line) {
        number += IsContinuation(byte) ? 0 : 1;
        if (number > begin + kShownCharacters) {
            break;
        }
        if (number > begin) {
            shown += static_cast<unsigned char>(byte) < 0x20 ? ' ' : byte;  // one column each, tabs too
        }
    }
    out << "    " << Printable(shown) << "\n    " << std::string(column - begin, ' ') << kBold << '^'
        << kPlain << '\n';
}

/// As UTF-8, which a file's name need not be.
std::string Valid(const std::string& text) {
    const base::GStringPtr valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    return valid.get();
}

}  // namespace

bool HasErrors(const std::vector<TSPolicyFinding>& findings) {
    return std::any_of(findings.begin(), findings.end(),
                       [](const TSPolicyFinding& finding) { return finding.isError; });
}

std::string LineOf(const std::string& file, const std::string& severity, const TSPolicyFinding& finding) {
    return PlaceOf(file, finding) + " " + (severity.empty() ? "" : severity + ": ") + Told(finding);
}

void PrintFindings(std::ostream& out, const Checked& checked, bool isColoured) {
    const bool isShown =
        isColoured && g_utf8_validate(checked.text.data(), static_cast<gssize>(checked.text.size()), nullptr);
    Lines lines(checked.text);
    for (const TSPolicyFinding& finding : checked.findings) {
        if (!isColoured) {
            out << LineOf(checked.file, Severity(finding), finding) << '\n';
            continue;
        }
        out << kBold << PlaceOf(checked.file, finding) << ' ' << (finding.isError ? kRed : kYellow)
            << Severity(finding) << ':' << kPlain << ' ' << Told(finding) << '\n';
        if (isShown) {
            PrintSource(out, lines.At(finding.line), finding.column);
        }
    }
}

Json::Value ToJson(const Checked& checked) {
    Json::Value one;
    one["file"] = Valid(checked.file);
    if (!checked.unreadable.empty()) {
        one["unreadable"] = Valid(checked.unreadable);
    }
    one["findings"] = Json::Value(Json::arrayValue);
    for (const TSPolicyFinding& finding : checked.findings) {
        Json::Value told;
        told["line"] = finding.line;
        told["column"] = finding.column;
        told["severity"] = Severity(finding);
        told["name"] = NameOf(finding.kind);
        told["text"] = Valid(finding.text);
        told["hint"] = Valid(finding.hint);
        one["findings"].append(told);
    }
    return one;
}

}  // namespace zolctl
