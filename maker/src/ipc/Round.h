#pragma once
/// One notification under way.
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "Subscribers.h"

namespace zol::ipc {

/// Asks a number of subscribers at the same time and counts their replies. Begin and the answers run on the
/// thread that dispatches GLib's default main context, everything else on any thread.
class Round : public std::enable_shared_from_this<Round> {
public:
    explicit Round(int code) : m_code(code), m_cancellable(g_cancellable_new()) {}
    Round(const Round&) = delete;
    Round& operator=(const Round&) = delete;

    /// Sends the code to all of `subscribers`, once. A round that is closed already sends nothing.
    void Begin(GDBusConnection* connection, const std::vector<Subscriber>& subscribers);

    /// Ends the round: answers that come from now on do not count.
    void Close();

    /// All have answered, or the round is closed.
    [[nodiscard]] bool Ended() const;

    /// Blocks until Ended or `timeoutMs` is over (-1: without limit). Not on the dispatching thread.
    void Wait(int timeoutMs);

    /// Replies so far.
    [[nodiscard]] int Replies() const;

private:
    static void AnswerCb(GObject* source, GAsyncResult* result, gpointer data);
    void Ask(GDBusConnection* connection, const Subscriber& subscriber);
    void OnAnswer(bool reply);
    [[nodiscard]] bool EndedLocked() const { return m_closed || (m_begun && m_open == 0); }

    const int m_code;
    const base::GObjectPtr<GCancellable> m_cancellable;
    mutable std::mutex m_mutex;
    std::condition_variable m_ended;
    // Guarded by m_mutex.
    bool m_begun = false;
    bool m_closed = false;
    std::size_t m_open = 0;
    int m_replies = 0;
};

}  // namespace zol::ipc
