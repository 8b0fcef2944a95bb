#pragma once
/// Watches the connections of the smart remote.
#include <cstdint>
#include <string>

#include "Event.h"
#include "Handler.h"
#include "Task.h"
#include "ZOLMonitorInformation.h"
#include "base/subscription.h"
#include "bt_hid.h"

class TCNotifyManager;

/// Method 31 counts connects and disconnects alike by the repetition rule. Method 32 reports every connect of
/// the remote that was connected last before it.
///
/// Construct, Create, StartMonitoring once; from then on only the platform's callback drives it, on the
/// platform's thread. Its own task handles nothing.
class TCBtPairMonitor : public TCMonitorInformation, public CCTask, public CCHandler {
public:
    /// vconf string key, written by the platform: id of the remote that was connected last.
    static constexpr const char* KEY_LAST_CONNECTED = "file/bluetooth/bt_last_connected_smart_rc";

    /// @param ignoreTime seconds; a callback at most this long after the one before it, counted or not, does
    ///                   not count. 0: zol::kDefaultIgnoreSeconds. A negative one ignores nothing.
    TCBtPairMonitor(TCNotifyManager* notify, int durationMinutes, int repetition, int method, int ignoreTime,
                    int index);
    /// Ends the task and withdraws the callback, which is not running when this returns. Neither on the
    /// task's own thread nor from inside the callback.
    ~TCBtPairMonitor() override;

    /// Starts the task. False, and logged, when it cannot.
    [[nodiscard]] bool Create();
    /// Registers for the remote's connections. False, and logged, when the method is unknown, the platform
    /// refuses, or method 32 does not know yet which remote was connected last.
    [[nodiscard]] bool StartMonitoring();
    /// Whether it is registered.
    [[nodiscard]] bool IsMonitoring() const { return static_cast<bool>(m_registration); }
    [[nodiscard]] bool RegisterBtCallback();
    /// Seconds; as the constructor has it.
    int GetIgnoreTime() const { return m_ignoreTime; }

    /// The callbacks of methods 31 and 32. `userData` is the monitor; `device` is not looked at.
    static void BtCountingCb(bool connected, bt_device_info_s* device, void* userData);
    static void BtLastConnectedCb(bool connected, bt_device_info_s* device, void* userData);

    /// The task gets no events of its own: always false.
    bool t_OnEvent(const CSEvent* event) override;

private:
    bool m_CheckIgnoreTime(std::int64_t now);
    bool m_CompareLastConnected();
    /// False when the store did not answer; a key that is missing or no string is an answer.
    bool m_StoreLastConnected();

    bool m_bCalled = false;  ///< there has been a counting callback: m_lastCallTime means something
    std::int64_t m_lastCallTime = 0;
    std::string m_LastConnectedId;
    bool m_isIdUnread = false;  ///< before the registration: the store did not answer
    std::int32_t m_ignoreTime;
    base::Subscription m_registration;  ///< goes first: the callback uses all of the above
};
