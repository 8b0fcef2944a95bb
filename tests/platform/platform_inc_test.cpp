#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>

#include "files.h"

namespace {

// Two libraries that were built with different flags must agree on every byte: _TIME_BITS decides the width
// of time_t, _FILE_OFFSET_BITS that of off_t, the machine that of long.
TEST(PlatformInterfaces, NameNoTypeWhoseWidthDependsOnBuildFlags) {
    const std::regex varying(R"(\b(long|timespec|timeval|time_t|off_t|ino_t|stat|tm|wchar_t|double)\b)");
    int headers = 0;
    for (const auto& entry : std::filesystem::directory_iterator(ZOL_PLATFORM_INC_DIR)) {
        const std::string text = std::regex_replace(ReadFile(entry.path()), std::regex("//[^\n]*"), "");
        std::smatch found;
        EXPECT_FALSE(std::regex_search(text, found, varying))
            << entry.path().filename() << " names " << found.str();
        ++headers;
    }
    EXPECT_GT(headers, 0);
}

}  // namespace
