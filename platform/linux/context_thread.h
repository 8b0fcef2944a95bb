#pragma once
/// Threads that serve a GLib context of their own.
#include <glib.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "base/glib_handles.h"

namespace platform {

/// Work for a context, from any thread, run in the order of posting. Made and destroyed while nobody
/// dispatches the context, or on the thread that dispatches it, also by its own work; what has not begun by
/// then is dropped.
class WorkQueue {
public:
    /// @param name what log lines call it when work throws
    WorkQueue(GMainContext* context, std::string name);
    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    /// Any thread.
    void Post(std::function<void()> work);

private:
    static gboolean RunNextCb(gpointer data);

    const std::string m_name;
    std::mutex m_mutex;  ///< guards the work
    std::deque<std::function<void()>> m_work;
    base::GSourcePtr m_source;
};

/// base::StartTimer on the thread-default context; an exception is a log line.
[[nodiscard]] base::GSourcePtr StartTimer(unsigned milliseconds, std::function<void()> function);

/// A thread with a context and a loop of its own; the context is its thread-default one. Start and Stop are
/// called by one thread at a time, never by the thread itself.
class ContextThread {
public:
    /// @param name as shown by the kernel, at most 15 characters
    explicit ContextThread(std::string name);
    ~ContextThread();
    ContextThread(const ContextThread&) = delete;
    ContextThread& operator=(const ContextThread&) = delete;

    /// Starts the thread and returns after `begin` has run on it. `end` runs on it as its last act.
    /// True at once when it runs already; false, with a line, when the system gives no thread or `begin`
    /// throws.
    [[nodiscard]] bool Start(std::function<void()> begin, std::function<void()> end);
    /// Ends the loop after the work at hand and joins. Work that was posted and has not begun is dropped.
    /// Nothing to do when it does not run.
    void Stop();
    /// Runs `work` on the thread, in the order of posting; dropped when the thread does not run. Any thread.
    void Post(std::function<void()> work);
    /// Whether the caller is this thread.
    bool IsCurrent() const { return m_id.load() == std::this_thread::get_id(); }

private:
    enum class State { Starting, Running, Failed };

    void Run(const std::function<void()>& begin, const std::function<void()>& end);

    const std::string m_name;
    base::GMainContextPtr m_context;
    base::GMainLoopPtr m_loop;
    std::mutex m_mutex;  ///< guards what follows
    std::condition_variable m_started;
    State m_state = State::Starting;
    std::unique_ptr<WorkQueue> m_work;
    std::atomic<std::thread::id> m_id{std::thread::id()};
    std::thread m_thread;
};

}  // namespace platform
