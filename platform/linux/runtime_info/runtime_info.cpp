#include "runtime_info.h"

#include <array>
#include <cstdio>

#include "vconf.h"

extern "C" int runtime_info_get_value_int(int key, int* value) {
    std::array<char, 48> name;
    std::snprintf(name.data(), name.size(), "db/runtime_info/%d", key);
    return vconf_get_int(name.data(), value);
}
