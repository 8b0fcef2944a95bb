/// Reads trap conditions, writes down what was understood, and reads that again.
#include <algorithm>
#include <string>
#include <vector>

#include "TrapFile.h"
#include "cv/TCTrapPattern.h"
#include "cv/TSTrap.h"
#include "device_paths.h"
#include "fake_dlog.h"
#include "fakes.h"
#include "fuzz_target.h"

namespace {

using cv::EItemKind;
using cv::ETrapOperator;
using cv::TSTrapCondition;
using cv::TSTrapItem;
using fuzz::Require;

constexpr std::size_t kMaxLine = 511;
constexpr std::size_t kMaxFile = 65536;

const char* WordOf(ETrapOperator op) {
    constexpr const char* kWords[] = {"==", "!=", "<", "<=", ">", ">=", "begins", "contains"};
    return kWords[static_cast<std::size_t>(op)];
}

std::string ValueOf(const TSTrapItem& item) {
    switch (item.kind) {
        case EItemKind::SIGNED:
            return "signed " + std::string(WordOf(item.op)) + " " + std::to_string(item.signedValue);
        case EItemKind::UNSIGNED:
            return "unsigned " + std::string(WordOf(item.op)) + " " + std::to_string(item.unsignedValue);
        case EItemKind::TEXT:
            break;
    }
    return "text " + std::string(WordOf(item.op)) + " \"" + item.text + "\"";
}

std::string LineOf(const std::string& site, const TSTrapItem& item) {
    return item.name + " " + site + " " + std::to_string(item.itemIndex) + " " + ValueOf(item);
}

void CheckItem(const TSTrapItem& item, const std::string& source) {
    const bool isText = item.kind == EItemKind::TEXT;
    Require(!isText || source.find(item.text.empty() ? "\"\"" : item.text) != std::string::npos,
            "a text that stands in the file");
    Require(!item.name.empty() && item.name.size() <= cv::TSTrapMatch::MAX_NAME, "the length of a name");
    Require(item.name.find_first_of(" \t\r\n") == std::string::npos, "a name of one word");
    const bool isOrder = item.op >= ETrapOperator::LESS && item.op <= ETrapOperator::GREATER_OR_EQUAL;
    const bool isPart = item.op == ETrapOperator::BEGINS || item.op == ETrapOperator::CONTAINS;
    Require(isText ? !isOrder : !isPart, "an operator of its kind");
    // A value of another form never meets a condition; the value itself meets or misses it as the operator
    // says.
    const bool wanted = item.op == ETrapOperator::EQUAL || item.op == ETrapOperator::LESS_OR_EQUAL ||
                        item.op == ETrapOperator::GREATER_OR_EQUAL || isPart;
    Require(item.EvaluateResult(item.signedValue) == (item.kind == EItemKind::SIGNED && wanted) &&
                item.EvaluateResult(item.unsignedValue) == (item.kind == EItemKind::UNSIGNED && wanted) &&
                item.EvaluateResult(std::string_view(item.text)) == (isText && wanted),
            "a condition on its own value");
}

/// The conditions of the text, a line each; fails when one makes no sense.
std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<TSTrapCondition> conditions;
    fakes::WriteDeviceFile(ZOL_PATH_TRAP_CONF, text);
    const int count = cv::LoadTraps(conditions);
    if (count == -1) {
        Require(text.size() > kMaxFile, "only a long file is not read");
        return {};
    }
    std::vector<std::string> lines;
    for (const TSTrapCondition& condition : conditions) {
        Require(condition.Site().find(':') != std::string::npos, "the form of a place");
        for (unsigned index = 0; index < cv::TSEvent::MAX_ITEMS + 1; ++index) {
            const std::vector<TSTrapItem>& items = condition.GetItemsByIndex(index);
            Require(condition.ItemExists(index) == !items.empty(), "whether there are conditions");
            for (const TSTrapItem& item : items) {
                Require(item.itemIndex == index && index < cv::TSEvent::MAX_ITEMS, "the item's number");
                CheckItem(item, text);
                lines.push_back(LineOf(condition.Site(), item));
            }
        }
    }
    Require(count == static_cast<int>(lines.size()) && count <= 64, "the number of conditions");
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fakes::dlog::Clear();
    const std::vector<std::string> lines = LinesOf(std::string(data, data + size));
    // However bad a file is, it takes few lines of the log.
    Require(fakes::dlog::Lines().size() <= 17, "the number of complaints");
    std::string written;
    for (const std::string& line : lines) {
        if (line.size() > kMaxLine) {
            return 0;  // the quotes do not fit
        }
        written += line + "\n";
    }
    Require(LinesOf(written) == lines, "what was written down");
    return 0;
}
