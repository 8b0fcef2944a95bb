#include "ZOLView.h"

#include "Log.h"

namespace {
constexpr const char* kLogModule = "TCView";
/// In the tray and as a popup.
constexpr int kShownIn = NOTIFICATION_APPLIST_TRAY | NOTIFICATION_APPLIST_POPUP;
}  // namespace

TCView::TCView(const char* title, const char* content) {
    ZOL_LOG(LOG_ERROR, "[DEMO] TCView() START");
    m_Init(title, content);
    ZOL_LOG(LOG_ERROR, "[DEMO] TCView() END");
}

void TCView::m_Init(const char* title, const char* content) {
    m_Noti.reset(notification_create(NOTIFICATION_TYPE_PLAIN));
    if (m_Noti == nullptr) {
        ZOL_LOG(LOG_ERROR, "m_Noti is NULL");
        return;
    }
    // What cannot be set is not shown; the rest of the message is.
    notification_set_text(m_Noti.get(), NOTIFICATION_TEXT_TITLE, title, "TITLE", NOTIFICATION_ARGUMENT_NONE);
    notification_set_text(m_Noti.get(), NOTIFICATION_TEXT_CONTENT, content, "CONTENT",
                          NOTIFICATION_ARGUMENT_NONE);
    notification_set_display_applist(m_Noti.get(), kShownIn);
    if (notification_set_layout(m_Noti.get(), NOTIFICATION_LAYOUT_SINGLE) != 0) {
        ZOL_LOG(LOG_ERROR, "setting is fail");
    }
    // A plain layout is better than no message: the view is ready all the same.
    ZOL_LOG(LOG_ERROR, "setting is done");
    m_bReady = true;
}

void TCView::Show() {
    if (m_bReady) {
        notification_post(m_Noti.get());
    }
}
