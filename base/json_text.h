#pragma once
#include <json/json.h>

#include <ios>
#include <memory>
#include <sstream>
#include <string>

namespace base {

/// A value as the builder's writer puts it. Throws std::bad_alloc where memory runs out: Json::writeString,
/// whose stream keeps that to itself, ends the text in the middle then.
inline std::string JsonText(const Json::StreamWriterBuilder& builder, const Json::Value& value) {
    std::ostringstream text;
    text.exceptions(std::ios::badbit);
    const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    writer->write(value, &text);
    return text.str();
}

}  // namespace base
