/// Formats a message as the platform log does and reads the line as dlogutil does; and lets dlogutil read a
/// file of anything.
#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "dlog/log_sinks.h"
#include "fuzz_target.h"
#include "record.h"
#include "source.h"
#include "temporary_folder.h"

namespace {

using dlogutil::Record;
using fuzz::Input;
using fuzz::Require;

constexpr const char* kLetters = "VDIWEF";

bool IsVisible(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char character) {
        const auto code = static_cast<unsigned char>(character);
        return (code < 0x20 && code != '\t') || code == 0x7f;
    });
}

void CheckFormat(Input& input) {
    const int level = static_cast<int>(input.Below(6));
    // Days of this century, with their summer times.
    const std::time_t seconds =
        946684800 + std::time_t{input.Byte()} * 86400 * 143 + std::time_t{input.Byte()} * 337;
    const long nanoseconds = static_cast<long>(input.Byte()) * 3921568;
    const std::string tag = input.Text(input.Below(32));
    const std::string text = input.Rest();
    dlog::LineFormatter formatter;
    const std::string line(formatter.Format({level, tag, text, {seconds, nanoseconds}, 17, 18}));
    Require(!line.empty() && line.back() == '\n', "the end of a line");
    const std::string_view content(line.data(), line.size() - 1);
    Require(IsVisible(content), "a line without control characters");
    Record record;
    if (tag.find('(') != std::string::npos) {
        // Ends the tag, as dlogutil reads it: whatever it makes of the rest.
        static_cast<void>(dlogutil::ParseLine(content, &record));
        return;
    }
    Require(dlogutil::ParseLine(content, &record), "a line that can be read");
    Require(record.priority == kLetters[level] && record.pid == "17" && record.tid == "18", "who logged");
    Require(record.tag == dlogutil::Visible(tag) && record.message == dlogutil::Visible(text),
            "what was logged");
    Require(record.dateTime == dlogutil::DateTime(std::int64_t{seconds} * 1000000 + nanoseconds / 1000),
            "when it was logged");
    Require(dlogutil::Print(record, dlogutil::Format::Time) == line, "a line printed again");
}

void CheckRecord(const Record& record, const std::string& text) {
    const std::string line = "\n" + dlogutil::Print(record, dlogutil::Format::Time);
    Require(("\n" + text).find(line) != std::string::npos, "a record that stands in the file");
    Require(std::string(kLetters).find(record.priority) != std::string::npos, "a priority");
    Require(record.wallUs >= 0, "a time");
    for (const dlogutil::Format format : {dlogutil::Format::KernelTime, dlogutil::Format::Brief}) {
        Require(dlogutil::Print(record, format).back() == '\n', "the end of a printed line");
    }
}

/// Lines are found wherever the pieces in which a file is read meet.
void CheckFile(const std::string& text) {
    static const TemporaryFolder folder;
    std::ofstream(folder.Path() + "/main.log", std::ios::binary) << text;
    std::size_t count = 0;
    const bool isRead = dlogutil::MakeFileSource(folder.Path(), {"main"})->Drain([&](const Record& record) {
        CheckRecord(record, text);
        ++count;
    });
    Require(isRead, "a file that can be read");
    std::size_t wanted = 0;
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        Record record;
        // Of its own length, so that a look behind its end is seen.
        const std::vector<char> line(text.begin() + static_cast<std::ptrdiff_t>(begin),
                                     text.begin() + static_cast<std::ptrdiff_t>(end));
        wanted += dlogutil::ParseLine({line.data(), line.size()}, &record) ? 1 : 0;
    }
    Require(count == wanted || text.size() > 65536, "the number of records");
}

void CheckFilter(Input& input) {
    const std::string wanted = input.Text(input.Below(16));
    dlogutil::Filters filters;
    if (filters.Add(wanted)) {
        const std::size_t colon = wanted.rfind(':');
        const std::string tag = wanted.substr(0, colon);
        Require(filters.Wants('F', tag), "the highest priority of a tag");
        Require(tag == "*" || !filters.Wants('F', tag + "x"), "another tag");
        Require(colon == std::string::npos || filters.Wants(wanted[colon + 1], tag), "the lowest priority");
        Require(filters.Tags().size() == (tag == "*" ? 0 : 1), "the tags asked for");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    switch (input.Below(3)) {
        case 0:
            CheckFormat(input);
            break;
        case 1:
            CheckFile(input.Rest());
            break;
        default:
            CheckFilter(input);
    }
    return 0;
}
