#pragma once
/// Sleep and shutdown as logind announces them.
#include <functional>
#include <memory>

#include "base/unique_fd.h"
#include "context_thread.h"
#include "dbus_service.h"

namespace platform {

/// Keeps the machine from sleeping or going off as long as somebody holds it, or until the monitor closes the
/// lock because logind is about to go on without it. Holders never look inside. Null when there is no lock.
using PowerDelay = std::shared_ptr<base::UniqueFd>;

/// Follows logind and holds a delay lock between its announcements. Lives on one thread like SystemService.
class LogindMonitor {
public:
    struct Handlers {
        /// The machine goes to standby or off (`reason`, enum device_power_reason) when `delay` is let go.
        std::function<void(int reason, PowerDelay delay)> powerOff;
        /// The machine is back.
        std::function<void(int reason)> wakeUp;
    };

    explicit LogindMonitor(Handlers handlers);

private:
    void OnAppeared();
    void OnLimit(const SystemService::Reply& reply);
    void OnPrepare(int reason, bool begins);
    void CloseGivenDelay();
    void TakeDelay();
    void OnDelay(const SystemService::Reply& reply);

    const Handlers m_handlers;
    PowerDelay m_delay;
    std::weak_ptr<base::UniqueFd> m_givenDelay;  ///< of the latest announcement
    unsigned m_limit;                            ///< milliseconds for which a delay may be held
    base::GSourcePtr m_limitTimer;
    bool m_going = false;        ///< an announcement was made and not yet taken back
    bool m_toldRefusal = false;  ///< a refused lock has been logged
    SystemService m_service;     ///< last, so that it stops before what its functions use goes
};

}  // namespace platform
