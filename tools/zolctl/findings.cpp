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

/// The line of a text, from 1, without its end. Lines end as XML has it.
std::string_view LineAt(std::string_view text, unsigned line) {
    for (; line > 1; --line) {
        const std::size_t end = text.find_first_of("\r\n");
        if (end == std::string_view::npos) {
            return {};
        }
        text.remove_prefix(end + (text.substr(end, 2) == "\r\n" ? 2 : 1));
    }
    return text.substr(0, text.find_first_of("\r\n"));
}

/// The characters of a line of UTF-8; those that are no letters stand as blanks.
std::vector<std::string> CharactersOf(std::string_view line) {
    std::vector<std::string> characters;
    for (const char byte : line) {
        const bool isContinuation = (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
        if (isContinuation && !characters.empty()) {
            characters.back() += byte;
        } else {
            characters.emplace_back(1, static_cast<unsigned char>(byte) < 0x20 ? ' ' : byte);
        }
    }
    return characters;
}

/// The line of the document with a mark below the place.
void PrintSource(std::ostream& out, std::string_view text, const TSPolicyFinding& finding) {
    const std::vector<std::string> line = CharactersOf(LineAt(text, finding.line));
    const std::size_t column = finding.column - 1;
    if (column > line.size() || line.empty()) {
        return;
    }
    const std::size_t begin =
        line.size() > kShownCharacters && column > kShownBefore ? column - kShownBefore : 0;
    const std::size_t end = std::min(line.size(), begin + kShownCharacters);
    out << "    ";
    for (std::size_t i = begin; i < end; ++i) {
        out << Printable(line[i]);
    }
    out << "\n    " << std::string(column - begin, ' ') << kBold << '^' << kPlain << '\n';
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
    for (const TSPolicyFinding& finding : checked.findings) {
        if (!isColoured) {
            out << LineOf(checked.file, Severity(finding), finding) << '\n';
            continue;
        }
        out << kBold << PlaceOf(checked.file, finding) << ' ' << (finding.isError ? kRed : kYellow)
            << Severity(finding) << ':' << kPlain << ' ' << Told(finding) << '\n';
        if (isShown) {
            PrintSource(out, checked.text, finding);
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
