#pragma once
/// Owner of the strings that vconf hands out.
#include <cstdlib>
#include <memory>

#include "vconf.h"

namespace zol {

struct VconfFree {
    void operator()(char* text) const { std::free(text); }
};

/// Null when the key is missing, holds no string or cannot be read.
using VconfString = std::unique_ptr<char, VconfFree>;

inline VconfString GetVconfString(const char* key) {
    return VconfString(vconf_get_str(key));
}

}  // namespace zol
