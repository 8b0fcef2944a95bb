#include "ZOLMonitorInformation.h"

#include "Event.h"
#include "Log.h"
#include "PolicyTimes.h"
#include "ZOLNotifyManager.h"
#include "platform_clock.h"

namespace {

constexpr const char* kLogModule = "TCMonitorInformation";

}  // namespace

TCMonitorInformation::TCMonitorInformation(TCNotifyManager* notify, int durationMinutes, int repetition,
                                           int method, int index)
    : m_pNotify(notify),
      m_duration(zol::ToSeconds(durationMinutes)),
      m_policyRepetition(repetition),
      m_monitorIndex(index),
      m_method(method) {}

std::int64_t TCMonitorInformation::GetCurrentTime() {
    platform_time_t now{};
    return platform_clock_realtime(&now) == 0 ? now.seconds : -1;
}

TSCounted TCMonitorInformation::CountEvent(std::int64_t now) {
    TSCounted counted;
    counted.isNewPeriod = GetFirstCalled() && now > GetExpiredTime();
    if (counted.isNewPeriod || !GetFirstCalled()) {
        ResetRepetition();
        SetFirstCallTime(now);
        SetFirstCalled(true);
    }
    AddRepetition();
    counted.repetition = GetCurrentRepetition();
    counted.isHit = counted.repetition >= GetPolicyRepetition();
    if (counted.isHit) {
        ResetRepetition();
        SetFirstCalled(false);
    }
    return counted;
}

bool TCMonitorInformation::NotifyZOL() {
    ZOL_LOG(LOG_ERROR, "NotifyZOL() CALL");
    if (m_pNotify == nullptr) {
        ZOL_LOG(LOG_ERROR, "m_pNotify is NULL");
        return false;
    }
    CSEvent event;
    event.receiver = m_pNotify;
    event.type = NOTIFY_ZOL_MONITOR;
    event.param.l[0] = m_monitorIndex;
    return CCTask::Send(&event, false);
}
