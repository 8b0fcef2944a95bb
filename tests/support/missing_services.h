#pragma once
/// The services that platform_services_missing names.
#include <string>
#include <vector>

#include "platform_services.h"

inline std::vector<std::string> Missing() {
    std::vector<std::string> names;
    platform_services_missing(
        [](const char* name, void* data) {
            static_cast<std::vector<std::string>*>(data)->emplace_back(name);
        },
        &names);
    return names;
}
