#include "Notifier.h"

#include <utility>

namespace zol::ipc {
namespace {

gboolean RaiseFlagCb(gpointer data) {
    *static_cast<bool*>(data) = true;
    return G_SOURCE_REMOVE;
}

}  // namespace

Notifier::Notifier(Begin begin)
    : m_begin(std::move(begin)), m_home(std::this_thread::get_id()), m_handle(this) {}

Notifier::~Notifier() {
    Cancel();
    std::unique_lock<std::mutex> lock(m_mutex);
    m_left.wait(lock, [this] { return m_blockedThreads == 0; });
}

// Before the main loop runs and after it has returned nobody owns the context; its thread is then the one
// that made the server.
bool Notifier::OnDispatchThread() const {
    return g_main_context_is_owner(g_main_context_default()) == TRUE || std::this_thread::get_id() == m_home;
}

int Notifier::Send(int code, int timeoutMs) {
    const auto round = std::make_shared<Round>(code);
    const bool serve = OnDispatchThread();
    bool isTooDeep = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_cancelled) {
            return 0;
        }
        m_rounds.insert(round);
        if (serve) {
            isTooDeep = ++m_nestedWaits > kMaxNestedWaits;
        } else {
            m_waiting.push_back(round);
            ++m_blockedThreads;
        }
    }
    if (isTooDeep) {
        // Each would add one to the stack for as long as some client does not answer.
        MAKER_ERROR("IPC: %d notifications wait for replies; code %d is sent without waiting",
                    kMaxNestedWaits, code);
        m_begin(*round);
    } else if (serve) {
        m_begin(*round);
        ServeUntilEnded(*round, timeoutMs);
    } else {
        // Not g_main_context_invoke: while no main loop runs that would begin it on this very thread.
        g_idle_add_full(G_PRIORITY_DEFAULT, BeginWaitingCb, m_handle.Data(), nullptr);
        round->Wait(timeoutMs);
    }
    round->Close();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_rounds.erase(round);
    --(serve ? m_nestedWaits : m_blockedThreads);
    m_left.notify_all();
    return round->Replies();
}

void Notifier::ServeUntilEnded(const Round& round, int timeoutMs) {
    bool expired = false;
    base::GSourcePtr timer;
    if (timeoutMs >= 0) {
        timer = base::StartTimer(nullptr, static_cast<unsigned>(timeoutMs), RaiseFlagCb, &expired);
    }
    while (!round.Ended() && !expired) {
        g_main_context_iteration(nullptr, TRUE);
    }
}

gboolean Notifier::BeginWaitingCb(gpointer data) {
    AtBoundary("a notification", [&] {
        if (Notifier* self = base::CallbackHandle<Notifier>::Find(data)) {
            self->BeginWaiting();
        }
    });
    return G_SOURCE_REMOVE;
}

void Notifier::BeginWaiting() {
    std::deque<std::shared_ptr<Round>> waiting;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        waiting.swap(m_waiting);
    }
    for (const auto& round : waiting) {
        m_begin(*round);
    }
}

void Notifier::Cancel() {
    std::set<std::shared_ptr<Round>> rounds;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_cancelled = true;
        rounds = m_rounds;
    }
    for (const auto& round : rounds) {
        round->Close();
    }
}

}  // namespace zol::ipc
