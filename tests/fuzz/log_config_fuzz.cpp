/// Lets the runtime log read a configuration, and reads it a second time by the rules of Logging.h.
#include <algorithm>
#include <string>
#include <vector>

#include "Logging.h"
#include "device_paths.h"
#include "fakes.h"
#include "fuzz_target.h"

namespace {

using fuzz::Require;

struct Config {
    ELogWay way = LOG_WAY_DLOG;
    std::uint32_t types = 0;
    std::vector<std::string> addresses;
};

/// The text in the pieces that count as lines: a longer one is read as several, and a zero ends each.
std::vector<std::string> Lines(const std::string& text) {
    constexpr std::size_t kLongest = 255;
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min({text.find('\n', begin), begin + kLongest - 1, text.size() - 1}) + 1;
        const std::string line = text.substr(begin, end - begin);
        lines.push_back(line.substr(0, line.find_first_of(std::string("\nr\0", 3))));
        begin = end;
    }
    return lines;
}

std::uint32_t TypesOf(const std::string& letters) {
    std::uint32_t types = 0;
    for (const char letter : letters) {
        if (letter == '*') {
            return LOG_TYPE_E | LOG_TYPE_D | LOG_TYPE_I | LOG_TYPE_G;
        }
        types += letter == 'E' ? LOG_TYPE_E : 0U;
        types += letter == 'D' ? LOG_TYPE_D : 0U;
        types += letter == 'I' ? LOG_TYPE_I : 0U;
        types += letter == 'G' ? LOG_TYPE_G : 0U;
    }
    return types;
}

Config Read(const std::string& text) {
    Config config;
    for (const std::string& line : Lines(text)) {
        if (line.find('.') != std::string::npos) {
            if (config.addresses.size() < kMaxLogAddresses) {
                config.addresses.push_back(line.substr(0, 15));
            }
        } else if (line.find(':') == std::string::npos) {
            config.way = line.rfind("PRINT", 0) == 0 ? LOG_WAY_PRINT
                         : line.rfind("UDP", 0) == 0 ? LOG_WAY_UDP
                                                     : LOG_WAY_DLOG;
        } else if (line[0] == 'Z' || line[0] == '*') {
            config.types = TypesOf(line.size() > 2 ? line.substr(2) : "");
            break;
        }
    }
    if (config.types == 0) {
        config.types = LOG_TYPE_E | LOG_TYPE_D | LOG_TYPE_G;
        config.way = LOG_WAY_DLOG;
    }
    return config;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(data, data + size);
    fakes::WriteDeviceFile(ZOL_PATH_GST_LOG_CONF, text);
    Initialize();
    const Config config = Read(text);
    Require(g_logWay == config.way, "where lines go");
    Require(g_logType == config.types, "the types of lines");
    Require(static_cast<std::size_t>(g_ipListIdx) == config.addresses.size(), "the number of addresses");
    for (std::size_t index = 0; index < config.addresses.size(); ++index) {
        Require(g_ipList[index] == config.addresses[index], "an address");
    }
    Finalize();
    return 0;
}
