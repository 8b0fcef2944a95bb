#include "was.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "context_thread.h"
#include "guarded.h"
#include "was/install_watch.h"

namespace platform {

namespace {

/// The registrations and the thread that serves them while there are any.
class WebAppService {
public:
    int Monitor(const std::string& id, was_install_status_cb callback, void* userData) {
        // From inside a callback the thread runs anyhow, and whoever stops it holds the lock.
        std::unique_lock<std::mutex> life(m_life, std::defer_lock);
        if (!m_thread.IsCurrent()) {
            life.lock();
            if (!m_thread.Start([this] { Begin(); }, [this] { m_watch.reset(); })) {
                return -1;
            }
        }
        std::unique_lock<std::recursive_mutex> lock(m_mutex);
        if (m_watch.has_value()) {
            m_watch->Add(id);
            m_registrations.push_back({id, callback, userData});
            return 0;
        }
        lock.unlock();
        m_thread.Stop();
        return -1;
    }

    int Unmonitor(was_install_status_cb callback, void* userData) {
        const std::lock_guard<std::mutex> life(m_life);
        {
            const std::lock_guard<std::recursive_mutex> lock(m_mutex);
            const auto gone = std::stable_partition(
                m_registrations.begin(), m_registrations.end(), [&](const Registration& registration) {
                    return registration.callback != callback || registration.userData != userData;
                });
            if (gone == m_registrations.end()) {
                return -1;
            }
            const std::vector<Registration> removed(gone, m_registrations.end());
            m_registrations.erase(gone, m_registrations.end());
            for (const Registration& registration : removed) {
                if (m_watch.has_value() && !IsRegistered(registration.id)) {
                    m_watch->Remove(registration.id);
                }
            }
            if (!m_registrations.empty()) {
                return 0;
            }
        }
        m_thread.Stop();
        return 0;
    }

private:
    struct Registration {
        std::string id;
        was_install_status_cb callback;
        void* userData;
    };

    bool IsRegistered(const std::string& id) const {
        return std::any_of(m_registrations.begin(), m_registrations.end(),
                           [&](const Registration& registration) { return registration.id == id; });
    }

    void Begin() {
        m_watch.emplace(m_mutex, ApplicationsFolders(),
                        [this](const std::string& id, bool installed) { OnEvent(id, installed); });
        if (!m_watch->Start()) {
            m_watch.reset();
        }
    }

    void OnEvent(const std::string& id, bool installed) {
        const was_notify_event_e event = installed ? WAS_NOTIFY_INSTALL_COMPLETED : WAS_NOTIFY_UNINSTALLED;
        const std::vector<Registration> registrations = m_registrations;
        for (const Registration& registration : registrations) {
            if (registration.id == id) {
                registration.callback(id.c_str(), event, 0, 0, registration.userData);
            }
        }
    }

    std::mutex m_life;             ///< starts and stops come one at a time
    std::recursive_mutex m_mutex;  ///< guards what follows; held while callbacks run
    std::vector<Registration> m_registrations;
    std::optional<InstallWatch> m_watch;  ///< lives on the thread
    ContextThread m_thread{"zol-web-apps"};
};

/// Never destroyed: a callback that was not withdrawn may still run while the process ends.
WebAppService& Service() {
    static auto* const service = new WebAppService;
    return *service;
}

int Monitor(const was_install_status_request& request) {
    const std::string id(request.app_id, strnlen(request.app_id, sizeof(request.app_id)));
    // The id becomes a file name; none may lead out of the applications folders.
    const bool usable = !id.empty() && id.size() < sizeof(request.app_id) &&
                        id.find('/') == std::string::npos && id != "." && id != "..";
    if (!usable || request.callback == nullptr) {
        return -1;
    }
    return Service().Monitor(id, request.callback, request.user_data);
}

}  // namespace

}  // namespace platform

extern "C" int was_monitor_webapp_install_status(was_install_status_request request) {
    return platform::GuardedCall("web apps", [&] { return platform::Monitor(request); });
}

extern "C" int was_unmonitor_webapp_install_status(was_install_status_cb callback, void* user_data) {
    return platform::GuardedCall("web apps",
                                 [&] { return platform::Service().Unmonitor(callback, user_data); });
}
