#include "device_power/logind_monitor.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include "device_power.h"
#include "platform_log.h"

namespace platform {

namespace {

constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
constexpr std::uint64_t kUsualLimitUs = 5000000;  ///< what logind waits unless it is told otherwise

/// Nine tenths of what logind waits, in milliseconds: the lock is let go before logind takes it as broken.
unsigned LimitMs(std::uint64_t logindWaitsUs) {
    const std::uint64_t limit = logindWaitsUs / 10000 * 9;
    return static_cast<unsigned>(std::min<std::uint64_t>(limit, std::numeric_limits<unsigned>::max()));
}

}  // namespace

LogindMonitor::LogindMonitor(Handlers handlers)
    : m_handlers(std::move(handlers)),
      m_limit(LimitMs(kUsualLimitUs)),
      m_service({"org.freedesktop.login1", "logind", "power notifications"},
                {[this] { OnAppeared(); }, [this] { m_delay.reset(); }}) {}

void LogindMonitor::OnAppeared() {
    const auto follow = [this](const char* signal, int reason) {
        m_service.Subscribe({kPath, kManager, signal, nullptr},
                            [this, reason](const char* /*path*/, GVariant* parameters) {
                                gboolean begins = FALSE;
                                g_variant_get(parameters, "(b)", &begins);
                                OnPrepare(reason, begins != FALSE);
                            });
    };
    follow("PrepareForSleep", DEVICE_POWER_STANDBY);
    follow("PrepareForShutdown", DEVICE_POWER_SHUTDOWN);
    m_going = false;
    m_service.Call({kPath, "org.freedesktop.DBus.Properties", "Get"},
                   g_variant_new("(ss)", kManager, "InhibitDelayMaxUSec"), "(v)",
                   [this](const SystemService::Reply& reply) { OnLimit(reply); });
    TakeDelay();
}

void LogindMonitor::OnLimit(const SystemService::Reply& reply) {
    base::GVariantPtr limit;
    if (reply.value != nullptr) {
        GVariant* value = nullptr;
        g_variant_get(reply.value, "(v)", &value);
        limit.reset(value);
    }
    const bool isKnown =
        limit != nullptr && g_variant_is_of_type(limit.get(), G_VARIANT_TYPE_UINT64) != FALSE;
    m_limit = LimitMs(isKnown ? g_variant_get_uint64(limit.get()) : kUsualLimitUs);
}

void LogindMonitor::OnPrepare(int reason, bool begins) {
    m_going = begins;
    if (begins) {
        // Out of m_delay at once: when memory runs out below, the machine is not held up.
        PowerDelay delay = std::exchange(m_delay, nullptr);
        if (delay != nullptr) {
            m_givenDelay = delay;
            m_limitTimer = StartTimer(m_limit, [this] {
                if (!m_givenDelay.expired()) {
                    PLATFORM_LOG(WARN, "power-off work is not done in %u ms: the machine goes on", m_limit);
                }
                CloseGivenDelay();
            });
        }
        m_handlers.powerOff(reason, std::move(delay));
        return;
    }
    // The machine is back, or stayed: work that still goes on has nothing left to hold up.
    CloseGivenDelay();
    TakeDelay();
    // A shutdown that is called off wakes nobody: the machine never went.
    if (reason == DEVICE_POWER_STANDBY) {
        m_handlers.wakeUp(reason);
    }
}

void LogindMonitor::CloseGivenDelay() {
    m_limitTimer.reset();
    if (const PowerDelay delay = m_givenDelay.lock()) {
        delay->Reset();
    }
}

void LogindMonitor::TakeDelay() {
    m_service.Call({kPath, kManager, "Inhibit"},
                   g_variant_new("(ssss)", "sleep:shutdown", "zol", "Power-off work is done first", "delay"),
                   "(h)", [this](const SystemService::Reply& reply) { OnDelay(reply); });
}

void LogindMonitor::OnDelay(const SystemService::Reply& reply) {
    base::UniqueFd lock;
    base::GErrorPtr error;
    const char* reason = base::ErrorText(reply.error);
    if (reply.value != nullptr && reply.fds != nullptr) {
        gint32 index = 0;
        g_variant_get(reply.value, "(h)", &index);
        lock.Reset(g_unix_fd_list_get(reply.fds, index, base::OutError(error)));
        reason = base::ErrorText(error.get());
    }
    if (!lock) {
        if (!std::exchange(m_toldRefusal, true)) {
            PLATFORM_LOG(WARN, "logind gives no delay lock (%s): power-off work may come too late", reason);
        }
        return;
    }
    m_toldRefusal = false;
    // A lock that comes after the announcement would only hold up what nobody asked to hold up.
    if (!m_going) {
        m_delay = std::make_shared<base::UniqueFd>(std::move(lock));
    }
}

}  // namespace platform
