#pragma once
/// Recording of a test session on a USB stick, driven by two key combinations of the remote control.
#include <atomic>
#include <optional>
#include <string>

#include "Event.h"
#include "Handler.h"
#include "Task.h"
#include "base/subscription.h"
#include "base/unique_fd.h"
#include "key_combination.h"

/// Combination 95 starts a recording, 96 ends it and packs focus log, screen capture, trace dump and scenario
/// into one archive on the stick. There is one recording in the process, whichever object heard the keys.
///
/// The key combinations work without Create: they are served on their service's own thread, shell commands
/// included. The task receives no events of its own.
class TCTestRecording : public CCTask, public CCHandler {
public:
    TCTestRecording() = default;

    /// Starts the task. False, and logged, when it cannot.
    [[nodiscard]] bool Create();
    /// Stops listening to the keys, then ends the task. Only after a successful Create.
    void Destroy() override;

    /// Begins to listen to the two combinations, for as long as this lives; a second call begins anew. Where
    /// the service refuses it does not listen.
    void setKeyCombinationHandler();
    /// Stops listening; no handler is running when it returns. Not from inside a handler.
    void removeKeyCombinationHandler();

    /// What the key-combination service calls; the user data is not used.
    static void keyCombinationHandlerCb(KeyComb id, void* userData);

protected:
    bool t_OnEvent(const CSEvent* event) override;

private:
    static void m_Start();
    static void m_Stop();
    static void m_RecordingState(int state);
    static void m_EnableDlog(const std::string& dir);
    static void m_DisableDlog();
    static void m_ScreenCapture(const std::string& dir);
    static void m_saveDumpWrapper(const std::string& source, const std::string& destination);
    static void m_Make_tarfile();
    /// The stick's mount path, a path of the device; null when there is none.
    [[nodiscard]] static std::optional<std::string> m_get_usb_device_path();
    /// Runs a command in the shell and waits for it. The wait status; -1 when no process could be made or
    /// waited for.
    /// @param inherited a descriptor that the command gets too, although it closes at exec; -1: none
    [[nodiscard]] static int m_runShell(const std::string& command, int inherited = -1);

    static std::atomic<bool> m_testflag;
    /// Ends when the last process is gone that writes the focus log. Used while a combination is handled,
    /// which may still be so when the process ends: never destroyed.
    static base::UniqueFd& m_focusLogWriters;
    base::Subscription m_keys;
};
