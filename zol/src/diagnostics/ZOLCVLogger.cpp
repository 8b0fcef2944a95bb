#include "ZOLCVLogger.h"

#include <cstdint>

#include "Log.h"
#include "VconfString.h"
#include "cv/TCScopeContainer.h"
#include "cv/TSCallItem.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::CVLogger";

constexpr const char* kFocusKey = "memory/boot/dyboost/lumo_onfocus";
constexpr const char* kSelectKey = "memory/boot/dyboost/lumo_onselect";
constexpr const char* kRscLaunchKey = "db/factory/RSC_Launch";
constexpr const char* kRscForegroundKey = "db/factory/RSC_FG";
constexpr const char* kRscBackgroundKey = "db/factory/RSC_BG";
constexpr const char* kVolumeKey = "file/private/sound/volume/Master";

constexpr int kNoLevel = -1;
constexpr const char* kRscText = "Change RSC vconf value";

struct Watch {
    const char* key;
    vconf_callback_fn callback;
    const char* failure;
};

// The message of the last one names the foreground key; readers of the log know it so.
constexpr Watch kWatches[] = {
    {kFocusKey, TCCVLogger::m_ScreenScrollCb, "register m_ScreenScrollCb fail"},
    {kSelectKey, TCCVLogger::m_ScreenSelectCb, "register m_ScreenSelectCb fail"},
    {kRscLaunchKey, TCCVLogger::m_GetRSCCb, "register m_GetRSCCb about VCONFKEY_RSC_LAUNCH fail"},
    {kRscForegroundKey, TCCVLogger::m_GetRSCCb, "register m_GetRSCCb about VCONFKEY_RSC_FG fail"},
    {kRscBackgroundKey, TCCVLogger::m_GetRSCCb, "register m_GetRSCCb about VCONFKEY_RSC_FG fail"},
};

/// Logs and records a key's text in the name of a callback.
void ReportText(const char* key, const cv::TCScopeContainer& site) {
    const cv::TSSourceLocation& place = site.Location();
    const VconfString value = GetVconfString(key);
    WriteLog(LOG_INFO, kLogModule, place.file, place.function, static_cast<int>(place.line), "%s",
             value != nullptr ? value.get() : "value is null");
    if (value == nullptr) {
        return;
    }
    cv::TCScope scope(site);
    if (scope.IsActive()) {
        cv::TSCallItemHelper::StoreText(scope, value.get());
    }
}

}  // namespace

TCCVLogger::TCCVLogger() {
    ZOL_LOG(LOG_INFO, "[TCCVLogger] start");
    m_LoggingCsfs();
}

void TCCVLogger::m_LoggingCsfs() {
    for (const Watch& watch : kWatches) {
        if (vconf_notify_key_changed(watch.key, watch.callback, this) < 0) {
            ZOL_LOG(LOG_INFO, "%s", watch.failure);
        }
    }
    ZOL_LOG(LOG_INFO, "m_LoggingCsfs() end");
}

void TCCVLogger::m_ScreenScrollCb(keynode_t* node, void* userData) {
    static constexpr cv::TCScopeContainer kSite({__FILE__, __func__, __LINE__});
    if (node != nullptr && userData != nullptr) {
        ReportText(kFocusKey, kSite);
    }
}

void TCCVLogger::m_ScreenSelectCb(keynode_t* node, void* userData) {
    static constexpr cv::TCScopeContainer kSite({__FILE__, __func__, __LINE__});
    if (node != nullptr && userData != nullptr) {
        ReportText(kSelectKey, kSite);
    }
}

void TCCVLogger::m_GetRSCCb(keynode_t* node, void* userData) {
    if (node == nullptr || userData == nullptr) {
        return;
    }
    int launch = 0;
    int foreground = 0;
    int background = 0;
    if (vconf_get_int(kRscLaunchKey, &launch) != 0 || vconf_get_int(kRscForegroundKey, &foreground) != 0 ||
        vconf_get_int(kRscBackgroundKey, &background) != 0) {
        ZOL_LOG(LOG_INFO, "value is null");
        return;
    }
    ZOL_LOG(LOG_INFO, "iRSC_Launch = %d, iRSC_FG = %d, iRSC_BG = %d", launch, foreground, background);
    CV_TRACE_SCOPE(scope);
    if (scope.IsActive()) {
        cv::TSCallItemHelper::StoreText(scope, kRscText);
        for (const int value : {launch, foreground, background}) {
            cv::TSCallItemHelper::StoreFixed(scope, static_cast<std::int32_t>(value));
        }
    }
}

void TCCVLogger::LogVolumeLevel() {
    int level = kNoLevel;
    vconf_get_int(kVolumeKey, &level);
    {
        CV_TRACE_SCOPE(scope);
        if (scope.IsActive()) {
            cv::TSCallItemHelper::StoreFixed(scope, static_cast<std::int32_t>(level));
        }
    }
    ZOL_LOG(LOG_INFO, "volume level : %d", level);
}

}  // namespace zol
