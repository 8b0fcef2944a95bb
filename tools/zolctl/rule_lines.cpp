#include "rule_lines.h"

#include <algorithm>
#include <array>
#include <utility>

namespace zolctl {
namespace {

constexpr std::string_view kDaemonTag = "ZOL";
constexpr const char* kPairing = "pairing";  // as the daemon names that rule

/// "<source>: <function>(<line>) > <text>".
struct Line {
    std::string_view source;
    std::string_view function;
    std::string_view text;

    bool Is(std::string_view itsSource, std::string_view itsFunction) const {
        return source == itsSource && function == itsFunction;
    }
};

Line Split(std::string_view message) {
    const std::size_t colon = message.find(": ");
    const std::size_t bracket = message.find('(', std::min(colon, message.size()));
    const std::size_t end = message.find(") > ", std::min(bracket, message.size()));
    if (end == std::string_view::npos) {
        return {{}, {}, message};
    }
    return {message.substr(0, colon), message.substr(colon + 2, bracket - colon - 2),
            message.substr(end + 4)};
}

bool Has(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

bool IsPartOfName(char character) {
    const bool isLetter = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
    const bool isDigit = character >= '0' && character <= '9';
    return isLetter || isDigit || Has("/_-.", {&character, 1}) ||
           static_cast<unsigned char>(character) >= 0x80;
}

bool IsJudging(const Line& line) {
    constexpr std::array<std::string_view, 5> kFunctions = {"m_KeyChangedCb", "m_Check", "m_CheckIntType",
                                                            "m_CheckStringType", "Notify"};
    return line.source == "ZOLVconfChecker" &&
           std::find(kFunctions.begin(), kFunctions.end(), line.function) != kFunctions.end();
}

}  // namespace

bool Names(std::string_view text, std::string_view name) {
    for (std::size_t at = text.find(name); !name.empty() && at != std::string_view::npos;
         at = text.find(name, at + 1)) {
        const std::size_t end = at + name.size();
        if ((at == 0 || !IsPartOfName(text[at - 1])) && (end == text.size() || !IsPartOfName(text[end]))) {
            return true;
        }
    }
    return false;
}

RuleLines::RuleLines(std::string rule)
    : m_rule(std::move(rule)),
      m_kind(m_rule == kPairing ? Kind::Pairing
             : Has(m_rule, "/") ? Kind::Key
                                : Kind::Install) {}

bool RuleLines::IsNamedIn(const dlogutil::Record& record) const {
    if (m_kind == Kind::Key) {
        return Names(record.message, m_rule);
    }
    const Line line = Split(record.message);
    // Of several monitors of installations none says in its lines whose it is.
    if (m_kind == Kind::Install) {
        return Names(record.message, m_rule) || line.source == "ZOLAppInstallMonitor" ||
               (line.source == "ZOLMonitorManager" && Has(line.text, "APP INSTALL"));
    }
    return line.source == "ZOLBtPairMonitor" ||
           (line.source == "ZOLMonitorManager" && Has(line.text, "BT PAIR")) ||
           (line.source == "ZOLPolicyParser" && Has(line.text, "MONITOR_TYPE[3]")) ||
           (line.function == "m_GetKpiDescription" && Has(line.text, ";zol_error_type=3;"));
}

bool RuleLines::Wants(const dlogutil::Record& record) {
    const bool isNamed = IsNamedIn(record);
    if (record.tag != kDaemonTag) {
        return isNamed;
    }
    const Line line = Split(record.message);
    Thread& thread = m_threads[record.pid + ":" + record.tid];
    if (line.Is("ZOLVconfChecker", "m_KeyChangedCb") && Has(line.text, "key : ")) {
        thread.isChange = isNamed;
    } else if (!isNamed && !IsJudging(line)) {
        thread.isChange = false;
    }
    if (line.Is("ZOLNotifyManager", "t_OnEvent")) {
        thread.isReport = thread.isEvent = false;
    } else if (line.Is("ZOLNotifyManager", "m_GetKpiDescription")) {
        thread.isEvent = isNamed;
        thread.isReport = thread.isReport || isNamed;
    }
    return isNamed || thread.isChange || (thread.isEvent && line.Is("ZOLKpiManager", "SendKPI")) ||
           (thread.isReport && line.Is("ZOLNotifyManager", "m_UpdateVconfKey"));
}

}  // namespace zolctl
