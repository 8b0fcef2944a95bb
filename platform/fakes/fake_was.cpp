#include "fake_was.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <mutex>

#include "fake_internal.h"

namespace fakes {
namespace {

struct Service {
    // Held while callbacks run, so that a withdrawal from another thread waits for them.
    std::mutex mutex;
    std::vector<was_install_status_request> requests;
    std::map<std::string, int> failures;
};

Service& The() {
    static auto* service = new Service;
    return *service;
}

bool IsSafe(const std::string& id) {
    return !id.empty() && id != "." && id != ".." && id.find('/') == std::string::npos;
}

}  // namespace

void ResetWas() {
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().requests.clear();
    The().failures.clear();
}

namespace was {

int Install(const std::string& id, was_notify_event_e event) {
    Service& service = The();
    const std::lock_guard<std::mutex> lock(service.mutex);
    int told = 0;
    for (const was_install_status_request& request : service.requests) {
        if (id == request.app_id) {
            request.callback(request.app_id, event, 0, 0, request.user_data);
            ++told;
        }
    }
    return told;
}

void FailRegistrations(const std::string& id, int result) {
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().failures[id] = result;
}

std::vector<std::string> RegisteredIds() {
    Service& service = The();
    const std::lock_guard<std::mutex> lock(service.mutex);
    std::vector<std::string> ids;
    std::transform(service.requests.begin(), service.requests.end(), std::back_inserter(ids),
                   [](const was_install_status_request& request) { return std::string(request.app_id); });
    return ids;
}

}  // namespace was
}  // namespace fakes

extern "C" int was_monitor_webapp_install_status(was_install_status_request request) {
    fakes::Service& service = fakes::The();
    const std::lock_guard<std::mutex> lock(service.mutex);
    const auto failure = service.failures.find(request.app_id);
    if (failure != service.failures.end() && failure->second != 0) {
        return failure->second;
    }
    if (!fakes::IsSafe(request.app_id)) {
        return -1;
    }
    service.requests.push_back(request);
    return 0;
}

extern "C" int was_unmonitor_webapp_install_status(was_install_status_cb callback, void* user_data) {
    fakes::Service& service = fakes::The();
    const std::lock_guard<std::mutex> lock(service.mutex);
    const auto withdrawn =
        std::remove_if(service.requests.begin(), service.requests.end(),
                       [callback, user_data](const was_install_status_request& request) {
                           return request.callback == callback && request.user_data == user_data;
                       });
    if (withdrawn == service.requests.end()) {
        return -1;
    }
    service.requests.erase(withdrawn, service.requests.end());
    return 0;
}
