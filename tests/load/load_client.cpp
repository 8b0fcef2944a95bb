/// The load's own clients of the key store, faster than one zolctl per change.
///
/// load_client set: sets integer keys as fast as the store takes them. Each line of the standard input is
/// "KEY VALUE"; a set that fails is made again. An empty line is answered with "done SETS RETRIES" once all
/// before it are made.
///
/// load_client collect DELAYMS: a collector. Prints "watching", then "PATH HEADER" for each report folder
/// that it is handed, where HEADER is 1 when the folder holds a header.json, and empties the key DELAYMS
/// later.
#include <glib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "device_path.h"
#include "vconf.h"

namespace {

constexpr const char* kHandOverKey = "db/zol/send_zol_files_path";
constexpr unsigned long kPauseUs = 10000;
constexpr int kMaxAttempts = 3000;

/// How many attempts failed before one was successful; -1 when none was.
int Set(const std::string& key, int value) {
    for (int failed = 0; failed < kMaxAttempts; ++failed) {
        if (vconf_set_int(key.c_str(), value) == 0) {
            return failed;
        }
        g_usleep(kPauseUs);
    }
    return -1;
}

int SetKeys() {
    long sets = 0;
    long retries = 0;
    for (std::string line; std::getline(std::cin, line);) {
        if (line.empty()) {
            std::cout << "done " << sets << ' ' << retries << std::endl;
            sets = retries = 0;
            continue;
        }
        const std::size_t blank = line.find(' ');
        const int failed = Set(line.substr(0, blank), std::atoi(line.c_str() + blank));
        if (failed < 0) {
            std::cerr << "load_client: cannot set " << line << ": " << std::strerror(errno) << std::endl;
            return 1;
        }
        ++sets;
        retries += failed;
    }
    return 0;
}

/// Takes the folder that is published, if one is. Its emptying of the key is a change that calls again.
void Collect(keynode_t* /*node*/, void* delayUs) {
    char* path = nullptr;
    while ((path = vconf_get_str(kHandOverKey)) == nullptr && errno != ENOENT) {
        g_usleep(kPauseUs);
    }
    if (path != nullptr && *path != '\0') {
        const bool hasHeader = access(DevicePath(std::string(path) + "/header.json").c_str(), R_OK) == 0;
        std::cout << path << ' ' << hasHeader << std::endl;
        g_usleep(*static_cast<unsigned long*>(delayUs));
        while (vconf_set_str(kHandOverKey, "") != 0) {
            g_usleep(kPauseUs);
        }
    }
    std::free(path);
}

int CollectReports(const char* delayMs) {
    unsigned long delayUs = std::strtoul(delayMs, nullptr, 10) * 1000;
    if (vconf_notify_key_changed(kHandOverKey, Collect, &delayUs) != 0) {
        std::cerr << "load_client: cannot watch " << kHandOverKey << ": " << std::strerror(errno)
                  << std::endl;
        return 1;
    }
    std::cout << "watching" << std::endl;
    Collect(nullptr, &delayUs);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "set") == 0) {
        return SetKeys();
    }
    if (argc == 3 && std::strcmp(argv[1], "collect") == 0) {
        return CollectReports(argv[2]);
    }
    std::cerr << "usage: load_client set | load_client collect DELAYMS" << std::endl;
    return 2;
}
