#include "TrapFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "MakerLog.h"
#include "base/unique_fd.h"
#include "cv/TCTrapPattern.h"
#include "device_path.h"
#include "device_paths.h"

namespace cv {
namespace {

constexpr std::size_t kMaxFile = 65536;  // bytes
constexpr std::size_t kMaxLine = 511;    // bytes
constexpr int kMaxConditions = 64;
constexpr int kMaxBadLinesLogged = 16;
constexpr std::string_view kBlanks = " \t\r";

constexpr std::pair<std::string_view, EItemKind> kKinds[] = {
    {"signed", EItemKind::SIGNED}, {"unsigned", EItemKind::UNSIGNED}, {"text", EItemKind::TEXT}};

struct Operator {
    std::string_view word;
    ETrapOperator op;
    bool forNumbers;
    bool forTexts;
};
constexpr Operator kOperators[] = {
    {"==", ETrapOperator::EQUAL, true, true},       {"!=", ETrapOperator::NOT_EQUAL, true, true},
    {"<", ETrapOperator::LESS, true, false},        {"<=", ETrapOperator::LESS_OR_EQUAL, true, false},
    {">", ETrapOperator::GREATER, true, false},     {">=", ETrapOperator::GREATER_OR_EQUAL, true, false},
    {"begins", ETrapOperator::BEGINS, false, true}, {"contains", ETrapOperator::CONTAINS, false, true},
};

std::string_view Trim(std::string_view text) {
    const std::size_t begin = std::min(text.find_first_not_of(kBlanks), text.size());
    return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

/// Takes the first word off a line.
std::string_view TakeWord(std::string_view& line) {
    const std::size_t end = std::min(line.find_first_of(kBlanks), line.size());
    const std::string_view word = line.substr(0, end);
    line = Trim(line.substr(end));
    return word;
}

template <class Number>
bool ToNumber(std::string_view text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

bool IsName(std::string_view name) {
    return !name.empty() && name.size() <= TSTrapMatch::MAX_NAME &&
           std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < '\x7f'; });
}

bool IsSite(std::string_view site) {
    const std::size_t colon = site.find(':');
    return colon != std::string_view::npos && colon > 0 && colon + 1 < site.size();
}

std::string_view WithoutQuotes(std::string_view text) {
    const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
    return quoted ? text.substr(1, text.size() - 2) : text;
}

bool SetKind(std::string_view word, TSTrapItem& item) {
    const auto* found = std::find_if(std::begin(kKinds), std::end(kKinds),
                                     [&](const auto& kind) { return kind.first == word; });
    if (found == std::end(kKinds)) {
        return false;
    }
    item.kind = found->second;
    return true;
}

bool SetOperator(std::string_view word, TSTrapItem& item) {
    const bool text = item.kind == EItemKind::TEXT;
    const auto* found =
        std::find_if(std::begin(kOperators), std::end(kOperators), [&](const Operator& entry) {
            return entry.word == word && (text ? entry.forTexts : entry.forNumbers);
        });
    if (found == std::end(kOperators)) {
        return false;
    }
    item.op = found->op;
    return true;
}

bool SetValue(std::string_view value, TSTrapItem& item) {
    switch (item.kind) {
        case EItemKind::SIGNED:
            return ToNumber(value, item.signedValue);
        case EItemKind::UNSIGNED:
            return ToNumber(value, item.unsignedValue);
        case EItemKind::TEXT:
            item.text = WithoutQuotes(value);
            return !value.empty();
    }
    return false;
}

/// What is wrong with a line; null when nothing is.
const char* ParseLine(std::string_view line, std::string_view& site, TSTrapItem& item) {
    if (line.size() > kMaxLine) {
        return "the line is too long";
    }
    item.name = TakeWord(line);
    site = TakeWord(line);
    if (!IsName(item.name)) {
        return "the name is missing, too long or not plain ASCII";
    }
    if (!IsSite(site)) {
        return "the place is not <source>:<function>";
    }
    if (!ToNumber(TakeWord(line), item.itemIndex) || item.itemIndex >= TSEvent::MAX_ITEMS) {
        return "the item is not a number from 0 to 7";
    }
    if (!SetKind(TakeWord(line), item)) {
        return "the kind is not signed, unsigned or text";
    }
    if (!SetOperator(TakeWord(line), item)) {
        return "the operator does not exist for this kind";
    }
    return SetValue(line, item) ? nullptr : "the value is missing, no number of this kind or out of range";
}

TSTrapCondition& ConditionOf(std::vector<TSTrapCondition>& conditions, std::string_view site) {
    const auto found = std::find_if(conditions.begin(), conditions.end(),
                                    [&](const TSTrapCondition& entry) { return entry.Site() == site; });
    return found != conditions.end() ? *found : conditions.emplace_back(std::string(site));
}

/// Logs the first bad lines one by one and the rest as a number: a file of garbage must not flood the log.
class BadLines {
public:
    ~BadLines() {
        if (m_count > kMaxBadLinesLogged) {
            MAKER_ERROR("%s: %d more lines skipped", ZOL_PATH_TRAP_CONF, m_count - kMaxBadLinesLogged);
        }
    }
    void Add(int number, const char* why) {
        if (++m_count <= kMaxBadLinesLogged) {
            MAKER_ERROR("%s: line %d skipped: %s", ZOL_PATH_TRAP_CONF, number, why);
        }
    }

private:
    int m_count = 0;
};

bool ReadAll(int file, std::string& text) {
    text.resize(kMaxFile + 1);
    std::size_t length = 0;
    while (length < text.size()) {
        const ssize_t got = read(file, &text[length], text.size() - length);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            break;
        }
        length += static_cast<std::size_t>(got);
    }
    text.resize(length);
    return true;
}

int ParseTraps(std::string_view text, std::vector<TSTrapCondition>& conditions) {
    BadLines bad;
    int count = 0;
    for (int number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = Trim(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.empty() || line.front() == '#') {
            continue;
        }
        std::string_view site;
        TSTrapItem item;
        const char* why =
            count == kMaxConditions ? "there are 64 conditions already" : ParseLine(line, site, item);
        if (why != nullptr) {
            bad.Add(number, why);
            continue;
        }
        ConditionOf(conditions, site).Add(std::move(item));
        ++count;
    }
    return count;
}

}  // namespace

int LoadTraps(std::vector<TSTrapCondition>& conditions) {
    conditions.clear();
    // Without O_NONBLOCK a pipe in the file's place would hang the caller.
    const base::UniqueFd file(
        open(DevicePath(ZOL_PATH_TRAP_CONF).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file && errno == ENOENT) {
        return 0;
    }
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        MAKER_ERROR("cannot read %s: errno %d", ZOL_PATH_TRAP_CONF, errno);
        return -1;
    }
    std::string text;
    if (!S_ISREG(status.st_mode) || !ReadAll(file.Get(), text) || text.size() > kMaxFile) {
        MAKER_ERROR("cannot read %s: not a regular file of at most %zu bytes", ZOL_PATH_TRAP_CONF, kMaxFile);
        return -1;
    }
    return ParseTraps(text, conditions);
}

}  // namespace cv
