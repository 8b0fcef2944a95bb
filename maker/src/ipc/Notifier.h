#pragma once
/// Notifications from the server to its subscribers.
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Round.h"

namespace zol::ipc {

/// Sends notifications and waits for the replies. Made and destroyed on the thread that dispatches GLib's
/// default main context.
class Notifier {
public:
    /// Waits on the dispatching thread that may lie inside one another.
    static constexpr int kMaxNestedWaits = 8;

    /// Starts a round on the dispatching thread.
    using Begin = std::function<void(Round& round)>;

    explicit Notifier(Begin begin);
    /// Ends all waits, and returns when no other thread waits any more.
    ~Notifier();
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    /// See IDbusServer::SendNotification. Any thread.
    [[nodiscard]] int Send(int code, int timeoutMs);
    /// See IDbusServer::CancelNotifications. Any thread.
    void Cancel();

private:
    static gboolean BeginRoundsCb(gpointer data);
    bool OnDispatchThread() const;
    static void ServeUntilEnded(const Round& round, int timeoutMs);
    [[nodiscard]] std::vector<std::shared_ptr<Round>> Rounds();

    const Begin m_begin;
    const std::thread::id m_home;
    std::mutex m_mutex;
    std::condition_variable m_left;
    // Guarded by m_mutex.
    bool m_cancelled = false;
    int m_blockedThreads = 0;
    int m_nestedWaits = 0;
    std::vector<std::shared_ptr<Round>> m_rounds;
};

}  // namespace zol::ipc
