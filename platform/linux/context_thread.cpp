#include "context_thread.h"

#include <pthread.h>

#include <exception>
#include <utility>

#include "guarded.h"
#include "platform_log.h"

namespace platform {

namespace {

gboolean Dispatch(GSource* source, GSourceFunc callback, gpointer data) {
    g_source_set_ready_time(source, -1);
    return callback(data);
}

}  // namespace

WorkQueue::WorkQueue(GMainContext* context, std::string name) : m_name(std::move(name)) {
    static GSourceFuncs functions = {nullptr, nullptr, Dispatch, nullptr, nullptr, nullptr};
    m_source.reset(g_source_new(&functions, sizeof(GSource)));
    g_source_set_callback(m_source.get(), RunNextCb, this, nullptr);
    g_source_attach(m_source.get(), context);
}

void WorkQueue::Post(std::function<void()> work) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_work.push_back(std::move(work));
    g_source_set_ready_time(m_source.get(), 0);
}

gboolean WorkQueue::RunNextCb(gpointer data) {
    auto* self = static_cast<WorkQueue*>(data);
    const std::string name = self->m_name;
    std::function<void()> work;
    {
        const std::lock_guard<std::mutex> lock(self->m_mutex);
        work = std::move(self->m_work.front());
        self->m_work.pop_front();
        if (!self->m_work.empty()) {
            g_source_set_ready_time(self->m_source.get(), 0);
        }
    }
    // It may destroy the queue.
    Guarded(name.c_str(), work);
    return G_SOURCE_CONTINUE;
}

base::GSourcePtr StartTimer(unsigned milliseconds, std::function<void()> function) {
    const base::GMainContextPtr context(g_main_context_ref_thread_default());
    return base::StartTimer(context.get(), milliseconds,
                            [function = std::move(function)] { Guarded("timer", function); });
}

ContextThread::ContextThread(std::string name) : m_name(std::move(name)) {}

ContextThread::~ContextThread() {
    Stop();
}

bool ContextThread::Start(std::function<void()> begin, std::function<void()> end) {
    if (m_thread.joinable()) {
        return true;
    }
    m_context.reset(g_main_context_new());
    m_loop.reset(g_main_loop_new(m_context.get(), FALSE));
    std::unique_lock<std::mutex> lock(m_mutex);
    m_state = State::Starting;
    try {
        m_work = std::make_unique<WorkQueue>(m_context.get(), m_name);
        m_thread = std::thread(&ContextThread::Run, this, std::move(begin), std::move(end));
    } catch (const std::exception& error) {
        m_work.reset();
        PLATFORM_LOG(ERROR, "thread %s: %s", m_name.c_str(), error.what());
        return false;
    }
    m_started.wait(lock, [this] { return m_state != State::Starting; });
    if (m_state == State::Failed) {
        m_work.reset();
        lock.unlock();
        m_thread.join();
        return false;
    }
    return true;
}

void ContextThread::Stop() {
    if (!m_thread.joinable()) {
        return;
    }
    // Quitting from inside the loop cannot come before the loop runs.
    Post([this] { g_main_loop_quit(m_loop.get()); });
    m_thread.join();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_work.reset();
}

void ContextThread::Post(std::function<void()> work) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_work != nullptr) {
        m_work->Post(std::move(work));
    }
}

void ContextThread::Run(const std::function<void()>& begin, const std::function<void()>& end) {
    pthread_setname_np(pthread_self(), m_name.substr(0, 15).c_str());
    m_id = std::this_thread::get_id();
    g_main_context_push_thread_default(m_context.get());
    const bool hasBegun = Guarded(m_name.c_str(), [&] {
        begin();
        return true;
    });
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_state = hasBegun ? State::Running : State::Failed;
        m_started.notify_all();
    }
    if (hasBegun) {
        g_main_loop_run(m_loop.get());
    }
    Guarded(m_name.c_str(), end);
    g_main_context_pop_thread_default(m_context.get());
    m_id = std::thread::id();
}

}  // namespace platform
