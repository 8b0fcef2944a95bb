#pragma once
/// Notifications shown to the viewer.

#ifdef __cplusplus
extern "C" {
#endif

typedef struct notification_s* notification_h;

enum notification_type { NOTIFICATION_TYPE_PLAIN = 0 };
enum notification_text_type { NOTIFICATION_TEXT_TITLE = 0, NOTIFICATION_TEXT_CONTENT = 1 };
enum notification_argument_type { NOTIFICATION_ARGUMENT_NONE = -1 };
enum notification_layout { NOTIFICATION_LAYOUT_SINGLE = 1 };
/// Flags of notification_set_display_applist.
enum notification_applist { NOTIFICATION_APPLIST_TRAY = 1, NOTIFICATION_APPLIST_POPUP = 16 };

/// Null when the service library cannot be set up or there is no memory. Owned by the caller.
notification_h notification_create(int type);
/// All setters: 0 on success, else negative. Texts are copied.
int notification_set_text(notification_h handle, int text_type, const char* text, const char* key,
                          int argument_type);
int notification_set_display_applist(notification_h handle, int flags);
int notification_set_layout(notification_h handle, int layout);
/// How long it is shown, in milliseconds; 0 until the viewer closes it. Without it whoever shows it chooses.
int notification_set_expiry(notification_h handle, int milliseconds);
/// Shows it, or shows it again with its present texts. 0 on success, negative when nobody shows
/// notifications.
int notification_post(notification_h handle);
/// Null is allowed.
void notification_free(notification_h handle);

#ifdef __cplusplus
}
#endif
