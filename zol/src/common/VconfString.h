#pragma once
/// Owner of the strings that vconf hands out.
#include "base/handles.h"
#include "vconf.h"

namespace zol {

/// Null when the key is missing, holds no string or cannot be read.
using VconfString = base::MallocString;

inline VconfString GetVconfString(const char* key) {
    return VconfString(vconf_get_str(key));
}

}  // namespace zol
