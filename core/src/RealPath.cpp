#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Logging.h"

bool check_realpath(const char* path) {
    // When the last part does not exist, realpath fails but leaves the path up to there: a canonical path
    // to nothing passes.
    char resolved[PATH_MAX + 1] = {};
    const bool found = realpath(path, resolved) != nullptr;
    if (std::strncmp(path, resolved, std::strlen(path)) == 0) {
        return true;
    }
    if (found) {
        std::printf("(cmp failed) err : %d, path_name : %s, resolved_path : %s\n", resolved[0], path,
                    resolved);
    } else {
        std::printf("(cmp failed) path_name : %s, resolved_path : %s\n", path, resolved);
    }
    return false;
}

std::FILE* fopen_with_realpath(const char* path, const char* mode) {
    if (access(path, F_OK) != 0) {
        return std::fopen(path, mode);
    }
    char resolved[PATH_MAX] = {};
    if (realpath(path, resolved) == nullptr || std::strcmp(path, resolved) != 0) {
        return nullptr;
    }
    return std::fopen(path, mode);
}
