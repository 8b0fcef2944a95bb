#include "TraceJson.h"

#include <json/json.h>
#include <unistd.h>

#include <string_view>

#include "base/json_text.h"

namespace cv {
namespace {

constexpr std::uint64_t kNsPerUs = 1000;
constexpr const char* kProcess = "zol";

Json::UInt64 Microseconds(std::uint64_t nanoseconds) {
    return nanoseconds / kNsPerUs;
}

Json::Value Text(std::string_view text) {
    return {text.data(), text.data() + text.size()};
}

Json::Value ItemValue(const TSEvent& event, const TSCallItem& item) {
    switch (item.kind) {
        case EItemKind::SIGNED:
            return static_cast<Json::Int64>(item.bits);
        case EItemKind::UNSIGNED:
            return static_cast<Json::UInt64>(item.bits);
        case EItemKind::TEXT:
            return Text(event.TextOf(item));
    }
    return {};
}

/// The fields that every kind of entry has.
Json::Value Entry(const char* phase, const char* name, const TSSourceLocation& site, std::uint64_t timeNs,
                  std::int32_t thread) {
    Json::Value entry;
    entry["ph"] = phase;
    entry["name"] = name;
    entry["ts"] = Microseconds(timeNs);
    entry["pid"] = static_cast<Json::Int>(getpid());
    entry["tid"] = thread;
    entry["args"]["file"] = site.file;
    entry["args"]["line"] = site.line;
    return entry;
}

Json::Value EventEntry(const TSEvent& event) {
    Json::Value entry = Entry("X", event.site->function, *event.site, event.startNs, event.thread);
    entry["cat"] = "scope";
    entry["dur"] = Microseconds(event.durationNs);
    Json::Value& args = entry["args"];
    for (unsigned i = 0; i < event.itemCount; ++i) {
        const std::string name = "item" + std::to_string(i);
        args[name] = ItemValue(event, event.items[i]);
        if (event.items[i].cut) {
            args[name + "_cut"] = true;
        }
    }
    return entry;
}

Json::Value MatchEntry(const TSTrapMatch& match) {
    Json::Value entry = Entry("i", match.name, *match.site, match.timeNs, match.thread);
    entry["cat"] = "trap";
    entry["s"] = "t";  // a mark on its thread
    entry["args"]["function"] = match.site->function;
    entry["args"]["item"] = match.itemIndex;
    entry["args"]["value"] = match.value;
    return entry;
}

Json::Value ProcessEntry() {
    Json::Value entry;
    entry["ph"] = "M";
    entry["name"] = "process_name";
    entry["pid"] = static_cast<Json::Int>(getpid());
    entry["args"]["name"] = kProcess;
    return entry;
}

Json::Value OtherData(const TSDump& dump) {
    Json::Value other;
    other["wall_clock_s"] = static_cast<Json::Int64>(dump.wallSeconds);
    other["wall_clock_ts"] = Microseconds(dump.steadyNs);
    other["events_overwritten"] = static_cast<Json::UInt64>(dump.overwritten);
    other["traps_dropped"] = static_cast<Json::UInt64>(dump.dropped);
    return other;
}

}  // namespace

std::string TraceJson(const TSDump& dump) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    // One entry at a time: a tree of the whole recording would need several times the memory of the text.
    std::string text =
        "{\"displayTimeUnit\":\"ms\",\"otherData\":" + base::JsonText(writer, OtherData(dump)) +
        ",\"traceEvents\":[\n" + base::JsonText(writer, ProcessEntry());
    const auto append = [&](const Json::Value& entry) { text += ",\n" + base::JsonText(writer, entry); };
    for (const TSEvent& event : dump.events) {
        append(EventEntry(event));
    }
    for (const TSTrapMatch& match : dump.matches) {
        append(MatchEntry(match));
    }
    return text + "\n]}\n";
}

}  // namespace cv
