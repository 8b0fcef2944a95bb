#pragma once
/// A title and a text shown to the viewer as a notification.
#include <memory>

#include "base/handles.h"
#include "notification.h"

/// Construct, then Show. Any one thread at a time.
class TCView {
public:
    /// Prepares nothing: Show does nothing.
    TCView() = default;
    /// Prepares the notification; texts must not be null.
    TCView(const char* title, const char* content);
    /// Posts the notification, if one could be created. What is on the screen stays there when the view goes.
    void Show();

private:
    void m_Init(const char* title, const char* content);

    std::unique_ptr<notification_s, base::FreeWith<notification_free>> m_Noti;
    bool m_bReady = false;
};
