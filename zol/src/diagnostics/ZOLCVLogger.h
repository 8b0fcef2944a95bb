#pragma once
/// Reports user-interface and audio events to the maker's tracing library.
#include "vconf.h"

namespace zol {

/// Watches five keys from construction on and keeps no state. The callbacks run on the thread that delivers
/// changes of keys; LogVolumeLevel may be called on any thread. Nothing here throws.
class TCCVLogger {
public:
    /// Registers the callbacks; a key that cannot be watched is logged and the others are watched all the
    /// same.
    TCCVLogger();
    /// The callbacks stay registered and go on reporting: they look at no member, the pointer to this object
    /// is only a mark for them.
    ~TCCVLogger() = default;
    TCCVLogger(const TCCVLogger&) = delete;
    TCCVLogger& operator=(const TCCVLogger&) = delete;

    /// The element that got the focus; a null node or user data is ignored, as in the two below.
    static void m_ScreenScrollCb(keynode_t* node, void* userData);
    /// The element that was selected.
    static void m_ScreenSelectCb(keynode_t* node, void* userData);
    /// All three RSC settings, when one of them changed. Nothing is recorded unless all can be read.
    static void m_GetRSCCb(keynode_t* node, void* userData);

    /// The master volume, -1 when it cannot be read.
    void LogVolumeLevel();

private:
    void m_LoggingCsfs();
};

}  // namespace zol
