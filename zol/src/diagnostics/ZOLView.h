#pragma once
/// A title and a text shown to the viewer as a notification.
#include "notification.h"

/// Construct, then Show. Any one thread at a time.
class TCView {
public:
    /// Prepares nothing: Show does nothing.
    TCView() = default;
    /// Prepares the notification; texts must not be null.
    TCView(const char* title, const char* content);
    /// Releases the notification handle; what is on the screen stays there.
    ~TCView();
    TCView(const TCView&) = delete;
    TCView& operator=(const TCView&) = delete;

    /// Posts the notification, if one could be created.
    void Show();

private:
    void m_Init(const char* title, const char* content);

    notification_h m_Noti = nullptr;
    bool m_bReady = false;
};
