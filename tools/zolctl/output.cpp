#include "output.h"

#include <json/writer.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace zolctl {

void PrintJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    std::cout << Json::writeString(builder, value) << '\n';
}

bool IsColoured() {
    const char* refused = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0');
}

}  // namespace zolctl
