#include "context_thread.h"

#include <pthread.h>

#include <system_error>
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

WakeSource::WakeSource(GMainContext* context, std::function<void()> function)
    : m_function(std::move(function)) {
    static GSourceFuncs functions = {nullptr, nullptr, Dispatch, nullptr, nullptr, nullptr};
    m_source.reset(g_source_new(&functions, sizeof(GSource)));
    g_source_set_callback(m_source.get(), Run, this, nullptr);
    g_source_attach(m_source.get(), context);
}

void WakeSource::Wake() {
    g_source_set_ready_time(m_source.get(), 0);
}

gboolean WakeSource::Run(gpointer data) {
    // The function may destroy its source.
    const std::function<void()> function = static_cast<WakeSource*>(data)->m_function;
    Guarded("wake-up", function);
    return G_SOURCE_CONTINUE;
}

void ContextTimer::Set(GMainContext* context, unsigned milliseconds, std::function<void()> function) {
    m_function = std::move(function);
    m_source.reset(g_timeout_source_new(milliseconds));
    g_source_set_callback(m_source.get(), Run, this, nullptr);
    g_source_attach(m_source.get(), context);
}

gboolean ContextTimer::Run(gpointer data) {
    auto* self = static_cast<ContextTimer*>(data);
    // Cleared first, so that the function may set the timer again.
    const std::function<void()> function = std::move(self->m_function);
    self->m_source.reset();
    Guarded("timer", function);
    return G_SOURCE_REMOVE;
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
    m_wake = std::make_unique<WakeSource>(m_context.get(), [this] { RunPosted(); });
    try {
        m_thread = std::thread(&ContextThread::Run, this, std::move(begin), std::move(end));
    } catch (const std::system_error& error) {
        m_wake.reset();
        PLATFORM_LOG(ERROR, "thread %s: %s", m_name.c_str(), error.what());
        return false;
    }
    m_started.wait(lock, [this] { return m_running; });
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
    m_running = false;
    m_wake.reset();
    m_posted.clear();
}

void ContextThread::Post(std::function<void()> work) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_wake != nullptr) {
        m_posted.push_back(std::move(work));
        m_wake->Wake();
    }
}

void ContextThread::Run(const std::function<void()>& begin, const std::function<void()>& end) {
    pthread_setname_np(pthread_self(), m_name.substr(0, 15).c_str());
    m_id = std::this_thread::get_id();
    g_main_context_push_thread_default(m_context.get());
    Guarded(m_name.c_str(), begin);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_running = true;
        m_started.notify_all();
    }
    g_main_loop_run(m_loop.get());
    Guarded(m_name.c_str(), end);
    g_main_context_pop_thread_default(m_context.get());
    m_id = std::thread::id();
}

void ContextThread::RunPosted() {
    while (g_main_loop_is_running(m_loop.get()) != FALSE) {
        std::function<void()> work;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_posted.empty()) {
                return;
            }
            work = std::move(m_posted.front());
            m_posted.pop_front();
        }
        Guarded(m_name.c_str(), work);
    }
}

}  // namespace platform
