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

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

std::size_t CountCharacters(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !IsContinuation(byte); }));
}

/// Places in a document, whose lines end as XML has it. Asked for in their order, they are found in one pass.
class Places {
public:
    explicit Places(std::string_view text) : m_text(text) {}

    /// Goes to the beginning of a line, unless it is there already. @param line from 1
    void GoTo(unsigned line) {
        if (line == m_line) {
            return;
        }
        if (line < m_line || m_line == 0) {
            m_line = 1;
            m_begin = 0;
        }
        for (; m_line < line && m_begin < m_text.size(); ++m_line) {
            m_begin = std::min(m_text.find_first_of("\r\n", m_begin), m_text.size());
            m_begin += m_text.substr(m_begin, 2) == "\r\n" ? 2 : 1;
        }
        m_begin = std::min(m_begin, m_text.size());
        Rewind();
        m_isLong = CountCharacters(Read(0, kShownCharacters + 1)) > kShownCharacters;
    }
    [[nodiscard]] bool IsLong() const { return m_isLong; }
    /// At most so many characters of the line, from one of them on.
    std::string_view Read(std::size_t from, std::size_t most) {
        if (from < m_character) {
            Rewind();
        }
        for (; m_character < from && !IsEnd(m_at); ++m_character) {
            m_at = Behind(m_at);
        }
        std::size_t end = m_at;
        for (std::size_t count = 0; count < most && !IsEnd(end); ++count) {
            end = Behind(end);
        }
        return m_text.substr(m_at, end - m_at);
    }

private:
    void Rewind() {
        m_at = m_begin;
        m_character = 0;
    }
    bool IsEnd(std::size_t at) const {
        return at >= m_text.size() || m_text[at] == '\r' || m_text[at] == '\n';
    }
    /// Where the character ends that begins there.
    std::size_t Behind(std::size_t at) const {
        do {
            ++at;
        } while (at < m_text.size() && IsContinuation(m_text[at]));
        return at;
    }

    const std::string_view m_text;
    unsigned m_line = 0;      ///< 0: nowhere yet
    bool m_isLong = false;    ///< more than is shown
    std::size_t m_begin = 0;  ///< of the line
    std::size_t m_at = 0;     ///< in bytes, of the character m_character of the line
    std::size_t m_character = 0;
};

/// The line with a mark below the place; of a long line what stands around it.
void PrintSource(std::ostream& out, Places& places, const TSPolicyFinding& finding) {
    const std::size_t column = finding.column - 1;
    places.GoTo(finding.line);
    const std::size_t begin = places.IsLong() && column > kShownBefore ? column - kShownBefore : 0;
    std::string shown(places.Read(begin, kShownCharacters));
    if (shown.empty() || column > begin + CountCharacters(shown)) {
        return;
    }
    // One column each, tabs too.
    std::replace_if(
        shown.begin(), shown.end(), [](char byte) { return static_cast<unsigned char>(byte) < 0x20; }, ' ');
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
    Places places(checked.text);
    for (const TSPolicyFinding& finding : checked.findings) {
        if (!isColoured) {
            out << LineOf(checked.file, Severity(finding), finding) << '\n';
            continue;
        }
        out << kBold << PlaceOf(checked.file, finding) << ' ' << (finding.isError ? kRed : kYellow)
            << Severity(finding) << ':' << kPlain << ' ' << Told(finding) << '\n';
        if (isShown) {
            PrintSource(out, places, finding);
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
