#include "Round.h"

#include <chrono>
#include <utility>

namespace zol::ipc {

void Round::Begin(GDBusConnection* connection, const std::vector<Subscriber>& subscribers) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closed || std::exchange(m_begun, true)) {
            return;
        }
        m_open = connection != nullptr ? subscribers.size() : 0;
        if (m_open == 0) {
            m_ended.notify_all();
            return;
        }
    }
    for (const Subscriber& subscriber : subscribers) {
        Ask(connection, subscriber);
    }
}

void Round::Ask(GDBusConnection* connection, const Subscriber& subscriber) {
    // The round stays until the last answer. Its own waiter knows the time limit, so the call has none.
    auto keep = std::make_unique<std::shared_ptr<Round>>(shared_from_this());
    g_dbus_connection_call(connection, subscriber.name.c_str(), subscriber.path.c_str(), kClientInterface,
                           "Notify", g_variant_new("(i)", m_code), G_VARIANT_TYPE_UNIT,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, m_cancellable.get(), AnswerCb,
                           keep.release());
}

void Round::AnswerCb(GObject* source, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<std::shared_ptr<Round>> keep(static_cast<std::shared_ptr<Round>*>(data));
    AtBoundary("an answer to a notification", [&] {
        base::GErrorPtr error;
        const base::GVariantPtr reply(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, base::OutError(error)));
        (*keep)->OnAnswer(reply != nullptr);
    });
}

void Round::OnAnswer(bool reply) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_open;
    if (reply && !m_closed) {
        ++m_replies;
    }
    if (EndedLocked()) {
        m_ended.notify_all();
    }
}

void Round::Close() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        m_ended.notify_all();
    }
    g_cancellable_cancel(m_cancellable.get());
    // A waiter that iterates the main context looks again.
    g_main_context_wakeup(nullptr);
}

bool Round::Ended() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return EndedLocked();
}

void Round::Wait(int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto ended = [this] { return EndedLocked(); };
    if (timeoutMs < 0) {
        m_ended.wait(lock, ended);
    } else {
        m_ended.wait_for(lock, std::chrono::milliseconds(timeoutMs), ended);
    }
}

int Round::Replies() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_replies;
}

}  // namespace zol::ipc
