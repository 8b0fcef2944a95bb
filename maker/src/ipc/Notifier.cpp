#include "Notifier.h"

#include <algorithm>
#include <utility>

namespace zol::ipc {

Notifier::Notifier(Begin begin) : m_begin(std::move(begin)), m_home(std::this_thread::get_id()) {}

Notifier::~Notifier() {
    Cancel();
    std::unique_lock<std::mutex> lock(m_mutex);
    m_left.wait(lock, [this] { return m_blockedThreads == 0; });
    while (g_idle_remove_by_data(this) != FALSE) {
    }
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
        m_rounds.push_back(round);
        isTooDeep = serve && m_nestedWaits >= kMaxNestedWaits;
        ++(serve ? m_nestedWaits : m_blockedThreads);
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
        g_idle_add_full(G_PRIORITY_DEFAULT, BeginRoundsCb, this, nullptr);
        round->Wait(timeoutMs);
    }
    round->Close();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_rounds.erase(std::find(m_rounds.begin(), m_rounds.end(), round));
    --(serve ? m_nestedWaits : m_blockedThreads);
    m_left.notify_all();
    return round->Replies();
}

void Notifier::ServeUntilEnded(const Round& round, int timeoutMs) {
    bool expired = false;
    base::GSourcePtr timer;
    if (timeoutMs >= 0) {
        timer = base::StartTimer(nullptr, static_cast<unsigned>(timeoutMs), [&expired] { expired = true; });
    }
    while (!round.Ended() && !expired) {
        g_main_context_iteration(nullptr, TRUE);
    }
}

gboolean Notifier::BeginRoundsCb(gpointer data) {
    AtBoundary("a notification", [data] {
        auto* self = static_cast<Notifier*>(data);
        for (const auto& round : self->Rounds()) {
            self->m_begin(*round);
        }
    });
    return G_SOURCE_REMOVE;
}

void Notifier::Cancel() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_cancelled = true;
    }
    for (const auto& round : Rounds()) {
        round->Close();
    }
}

std::vector<std::shared_ptr<Round>> Notifier::Rounds() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_rounds;
}

}  // namespace zol::ipc
