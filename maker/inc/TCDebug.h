#pragma once
/// The maker's debug channel: a second copy of the application's log lines, in a file of its own.
#include <atomic>
#include <cstdarg>

/// Process-wide. Any thread. Nothing here throws or fails visibly.
class TCDebug {
public:
    /// The only instance; never null, never freed.
    static TCDebug* const m_instance;

    /// True when External would write somewhere.
    [[nodiscard]] bool OutputEnabled() const {
        return m_fileLog.load(std::memory_order_relaxed) || m_consoleLog.load(std::memory_order_relaxed);
    }

    /// Writes one line "<date time> <class> <function>(<line>) <message>" in local time to each output that
    /// is on. Line feeds and other control characters of the message become blanks; one at its end is
    /// dropped. Lines longer than 2303 bytes are cut. Allocates nothing unless the file has to be
    /// opened or rotated.
    void External(const char* className, const char* function, unsigned line, const char* format, ...)
        __attribute__((format(printf, 5, 6)));
    void VExternal(const char* className, const char* function, unsigned line, const char* format,
                   va_list arguments) __attribute__((format(printf, 5, 0)));

    /// Switches the file log (device path ZOL_PATH_DEBUG_LOG) on or off for this process. The file is opened
    /// with the first line and found again after it was deleted. Bounded to 1 MiB: a file that has reached
    /// half of that is kept aside as "debug.log.1", and the one before it is dropped. A file that cannot be
    /// written is said once on the platform log and tried again at most once a second; lines are lost
    /// meanwhile.
    static void EnableFileLog(bool on);
    /// Switches the copy on standard error on or off.
    static void EnableConsoleLog(bool on);

    /// Reports a failed assertion of the application on the platform log and this channel; returns.
    static void Assert(const char* file, unsigned line);

private:
    TCDebug() = default;
    static TCDebug s_object;

    // Tools outside this process read the two flags as the object's second and third bytes.
    std::atomic<bool> m_initialised{true};
    std::atomic<bool> m_fileLog{false};
    std::atomic<bool> m_consoleLog{false};
};
