#include "status.h"

#include <json/json.h>

#include <iostream>
#include <vector>

#include "exit_status.h"
#include "report.h"
#include "spool.h"
#include "text.h"

namespace collector {
namespace {

/// A report in the spool and what it says.
struct Row {
    Entry entry;
    std::string state;
    reports::Report report;
};

Row Read(const std::string& spool, Entry entry) {
    Row row;
    const bool isWaiting = entry.state == State::Waiting;
    base::UniqueFd folder;
    // What has gone meanwhile has no name.
    static_cast<void>(
        OpenEntry(spool + (isWaiting ? "/reports/" : "/refused/") + entry.name, folder, row.report));
    row.state = std::string(isWaiting ? "waiting" : "refused") + (entry.isWhole ? "" : ", header only");
    row.entry = std::move(entry);
    return row;
}

void PrintText(const std::vector<Row>& rows, const SpoolCounts& counts) {
    for (const Row& row : rows) {
        std::cout << tools::UtcTime(row.report.Time()) << '\t' << row.entry.bytes << '\t' << row.state << '\t'
                  << row.entry.Id() << '\t' << tools::OneLine(row.report.name) << '\n';
    }
    ForEach(counts, [](const char* name, std::int64_t count) { std::cout << name << '\t' << count << '\n'; });
}

void PrintJson(const std::vector<Row>& rows, const SpoolCounts& counts) {
    Json::Value status;
    status["reports"] = Json::Value(Json::arrayValue);
    for (const Row& row : rows) {
        Json::Value& one = status["reports"].append(Json::Value());
        one["time"] = tools::UtcTime(row.report.Time());
        one["bytes"] = Json::UInt64(row.entry.bytes);
        one["state"] = row.entry.state == State::Waiting ? "waiting" : "refused";
        one["whole"] = row.entry.isWhole;
        one["id"] = row.entry.Id();
        one["name"] = row.report.name;
    }
    ForEach(counts,
            [&](const char* name, std::int64_t count) { status["counts"][name] = Json::Int64(count); });
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    std::cout << Json::writeString(builder, status) << '\n';
}

}  // namespace

int PrintStatus(const Options& options) {
    std::vector<Entry> entries;
    if (const reports::Outcome outcome = ListSpool(options.spool, entries)) {
        std::cerr << "zol_collector: " << outcome.text << '\n';
        return EXIT_FAILED;
    }
    std::vector<Row> rows;
    rows.reserve(entries.size());
    for (Entry& entry : entries) {
        rows.push_back(Read(options.spool, std::move(entry)));
    }
    const SpoolCounts counts = SpoolCounts::Load(options.spool + "/counts.json");
    options.isJson ? PrintJson(rows, counts) : PrintText(rows, counts);
    if (!std::cout.flush()) {
        std::cerr << "zol_collector: cannot write the output\n";
        return EXIT_FAILED;
    }
    return EXIT_OK;
}

}  // namespace collector
