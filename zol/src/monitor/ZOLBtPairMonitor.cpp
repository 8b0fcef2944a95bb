#include "ZOLBtPairMonitor.h"

#include <cerrno>

#include "ExceptionWall.h"
#include "Log.h"
#include "PolicyTimes.h"
#include "VconfString.h"
#include "WorkerTask.h"
#include "ZOLPolicy.h"

namespace {

constexpr const char* kLogModule = "TCBtPairMonitor";
constexpr const char* kSource = "zol/src/ZOLBtPairMonitor";
constexpr const char* kTaskName = "BtMonitor";

/// Null for an unknown method.
bt_hid_smart_rc_connection_cb CallbackOf(int method) {
    switch (method) {
        case zol::METHOD_BT_COUNTING:
            return TCBtPairMonitor::BtCountingCb;
        case zol::METHOD_BT_LAST_CONNECTED:
            return TCBtPairMonitor::BtLastConnectedCb;
        default:
            return nullptr;
    }
}

/// The id that the platform published; null with errno, and logged, when it cannot be read.
zol::VconfString ReadLastConnected() {
    zol::VconfString id = zol::GetVconfString(TCBtPairMonitor::KEY_LAST_CONNECTED);
    if (id == nullptr) {
        const int reason = errno;
        ZOL_LOG(LOG_ERROR, "vconf_get_str fail");
        errno = reason;
    }
    return id;
}

}  // namespace

TCBtPairMonitor::TCBtPairMonitor(TCNotifyManager* notify, int durationMinutes, int repetition, int method,
                                 int ignoreTime, int index)
    : TCMonitorInformation(notify, durationMinutes, repetition, method, index), m_ignoreTime(ignoreTime) {
    ZOL_LOG(LOG_ERROR, "ignoreTime is %d", ignoreTime);
    if (m_ignoreTime == 0) {
        ZOL_LOG(LOG_ERROR, "set default ignoreTime");
        m_ignoreTime = zol::kDefaultIgnoreSeconds;
    }
    m_isIdUnread = !m_StoreLastConnected();
}

TCBtPairMonitor::~TCBtPairMonitor() {
    EndWorkerTask(*this, *this);
}

bool TCBtPairMonitor::Create() {
    ZOL_LOG(LOG_INFO, "[BtPairMonitor] Create");
    if (!StartWorkerTask(*this, *this, kTaskName, kSource, __LINE__)) {
        return false;
    }
    ZOL_LOG(LOG_INFO, "[BtPairMonitor] Created : %lu", CCTask::Id());
    return true;
}

bool TCBtPairMonitor::StartMonitoring() {
    // Without the id the next pairing of the same remote would pass for its first.
    if (m_isIdUnread && GetMethod() == zol::METHOD_BT_LAST_CONNECTED) {
        m_isIdUnread = !m_StoreLastConnected();
        if (m_isIdUnread) {
            return false;
        }
    }
    if (!RegisterBtCallback()) {
        ZOL_LOG(LOG_ERROR, "[BtMonitor] RegisterBtCallback() fail");
        return false;
    }
    return true;
}

bool TCBtPairMonitor::RegisterBtCallback() {
    m_registration.Reset();
    const bt_hid_smart_rc_connection_cb callback = CallbackOf(GetMethod());
    const int result = callback == nullptr ? -1 : bt_hid_set_smart_rc_connection_cb(callback, this);
    if (result != 0) {
        ZOL_LOG(LOG_ERROR, "[BtMonitor] fail to register bt callback, return [%d]", result);
        return false;
    }
    m_registration =
        base::Subscription([this, callback] { bt_hid_unset_smart_rc_connection_cb(callback, this); });
    ZOL_LOG(LOG_INFO, "[BtMonitor] success to register bt callback.");
    return true;
}

void TCBtPairMonitor::BtCountingCb(bool connected, bt_device_info_s* /*device*/, void* userData) try {
    ZOL_LOG(LOG_INFO, "[BtMonitor] BtCountingCb() called, connected : %d", connected);
    auto* const monitor = static_cast<TCBtPairMonitor*>(userData);
    if (monitor == nullptr) {
        ZOL_LOG(LOG_INFO, "[BtMonitor] BtCountingCb() called, pMonitor is NULL");
        return;
    }
    const std::int64_t now = GetCurrentTime();
    if (monitor->m_CheckIgnoreTime(now)) {
        ZOL_LOG(LOG_INFO, "[BtMonitor] BtCountingCb() called between ignoreTime, return");
        return;
    }
    const TSCounted counted = monitor->CountEvent(now);
    if (counted.isNewPeriod) {
        ZOL_LOG(LOG_INFO, "[BtMonitor] CurrentTime > ExpiredTime, set now time to FirstCallTime");
    }
    ZOL_LOG(LOG_INFO, "[BtMonitor] BtCountingCb(), Current Repetition : %d", counted.repetition);
    if (!counted.isHit) {
        return;
    }
    ZOL_LOG(LOG_INFO, "[BtMonitor] abnormal behavior, send to Notifier");
    if (monitor->NotifyZOL()) {
        ZOL_LOG(LOG_INFO, "[BtMonitor] Send Event success");
    } else {
        ZOL_LOG(LOG_ERROR, "[BtMonitor] Send Event fail");
    }
} catch (...) {
    zol::LogCallbackException(kLogModule);
}

void TCBtPairMonitor::BtLastConnectedCb(bool connected, bt_device_info_s* /*device*/, void* userData) try {
    ZOL_LOG(LOG_INFO, "[BtMonitor] BtLastConnectedCb() called, connected : %d", connected);
    auto* const monitor = static_cast<TCBtPairMonitor*>(userData);
    if (monitor == nullptr) {
        ZOL_LOG(LOG_INFO, "[BtMonitor] BtLastConnectedCb() called, pMonitor is NULL");
    } else if (!connected) {
        static_cast<void>(monitor->m_StoreLastConnected());  // the id before it stays
    } else if (monitor->m_CompareLastConnected()) {
        static_cast<void>(monitor->NotifyZOL());  // a hit that finds no room is lost; there is no line for it
    }
} catch (...) {
    zol::LogCallbackException(kLogModule);
}

bool TCBtPairMonitor::t_OnEvent(const CSEvent* /*event*/) {
    ZOL_LOG(LOG_INFO, "[BtMonitor] t_OnEvent");
    return false;
}

bool TCBtPairMonitor::m_CheckIgnoreTime(std::int64_t now) {
    const bool isIgnored = m_bCalled && m_lastCallTime + m_ignoreTime >= now;
    m_bCalled = true;
    m_lastCallTime = now;
    return isIgnored;
}

bool TCBtPairMonitor::m_CompareLastConnected() {
    const zol::VconfString current = ReadLastConnected();
    if (current == nullptr) {
        return false;
    }
    if (m_LastConnectedId.empty()) {
        ZOL_LOG(LOG_ERROR, "m_LastConnectedId is empty, first pairing case");
        return false;
    }
    if (m_LastConnectedId == current.get()) {
        ZOL_LOG(LOG_ERROR, "m_LastConnectedId is same as currentId, abnormal case");
        return true;
    }
    ZOL_LOG(LOG_ERROR, "m_LastConnectedId is different as currentId, new rc pairing case");
    return false;
}

bool TCBtPairMonitor::m_StoreLastConnected() {
    const zol::VconfString current = ReadLastConnected();
    if (current != nullptr) {
        m_LastConnectedId = current.get();
    }
    return current != nullptr || errno == ENOENT || errno == EINVAL;
}
