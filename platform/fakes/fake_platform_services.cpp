#include "fake_platform_services.h"

#include <utility>

#include "fake_internal.h"
#include "platform_services.h"

namespace fakes {
namespace {

std::vector<std::string>& Missing() {
    static auto* const missing = new std::vector<std::string>;
    return *missing;
}

}  // namespace

namespace platform_services {

void SetMissing(std::vector<std::string> names) {
    Missing() = std::move(names);
}

}  // namespace platform_services

void ResetPlatformServices() {
    Missing().clear();
}

}  // namespace fakes

void platform_services_missing(void (*each)(const char* name, void* user_data), void* user_data) {
    for (const std::string& name : fakes::Missing()) {
        each(name.c_str(), user_data);
    }
}
