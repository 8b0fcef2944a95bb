#include "fake_runtime_info.h"

#include <map>
#include <mutex>

#include "fake_internal.h"
#include "runtime_info.h"

namespace fakes {
namespace {

std::mutex g_mutex;

std::map<int, int>& TheValues() {
    static auto* values = new std::map<int, int>;
    return *values;
}

}  // namespace

void ResetRuntimeInfo() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    TheValues().clear();
}

namespace runtime_info {

void Set(int key, int value) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    TheValues()[key] = value;
}

void Unset(int key) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    TheValues().erase(key);
}

}  // namespace runtime_info
}  // namespace fakes

extern "C" int runtime_info_get_value_int(int key, int* value) {
    const std::lock_guard<std::mutex> lock(fakes::g_mutex);
    const auto found = fakes::TheValues().find(key);
    if (found == fakes::TheValues().end()) {
        return -1;
    }
    *value = found->second;
    return 0;
}
