#include "spool_counts.h"

#include <json/json.h>

#include <fstream>

#include "base/atomic_file.h"
#include "base/json_text.h"

namespace collector {
namespace {

constexpr mode_t kMode = 0644;

}  // namespace

SpoolCounts SpoolCounts::Load(const std::string& file) {
    SpoolCounts counts;
    std::ifstream input(file);
    Json::Value value;
    Json::String errors;
    try {
        if (!Json::parseFromStream(Json::CharReaderBuilder(), input, &value, &errors) || !value.isObject()) {
            return counts;
        }
    } catch (const Json::Exception&) {  // nested too deeply
        return counts;
    }
    ForEach(counts, [&](const char* name, std::int64_t& count) {
        count = value[name].isInt64() ? value[name].asInt64() : 0;
    });
    return counts;
}

std::error_code SpoolCounts::Save(const std::string& file) const {
    Json::Value value;
    ForEach(*this, [&](const char* name, std::int64_t count) { value[name] = Json::Int64(count); });
    return base::ReplaceFile(file, base::JsonText(Json::StreamWriterBuilder(), value), kMode);
}

}  // namespace collector
