#pragma once
/// Threads that handle messages: a task of the runtime, and what else there is to hand work to a thread.
#include <glib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <cstdlib>
#include <thread>

#include "Event.h"
#include "Handler.h"
#include "Task.h"
#include "message.h"

namespace bench {

class TaskReceiver : public CCTask, public CCHandler {
public:
    static constexpr const char* kName = "task";

    TaskReceiver() {
        if (!CCTask::Create("bench", 8192) || !CCHandler::Create(this)) {
            std::abort();
        }
    }
    ~TaskReceiver() override {
        CCHandler::Destroy();
        ExitLoop();
        CCTask::Destroy();
    }
    void Destroy() override {}
    void Send(Message* message) {
        CSEvent event;
        event.receiver = this;
        event.param.p = message;
        // The queue holds 255 events; a full one is the receiver's turn.
        while (!CCTask::Send(&event, false)) {
            std::this_thread::yield();
        }
    }

protected:
    bool t_OnEvent(const CSEvent* event) override {
        Handle(event->param.p);
        return true;
    }
};

class AsioReceiver {
public:
    static constexpr const char* kName = "boost::asio::post";

    AsioReceiver() : m_work(m_context.get_executor()), m_thread([this] { m_context.run(); }) {}
    ~AsioReceiver() {
        m_work.reset();
        m_thread.join();
    }
    AsioReceiver(const AsioReceiver&) = delete;
    AsioReceiver& operator=(const AsioReceiver&) = delete;
    void Send(Message* message) {
        boost::asio::post(m_context, [message] { Handle(message); });
    }

private:
    boost::asio::io_context m_context{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work;
    std::thread m_thread;
};

class GlibReceiver {
public:
    static constexpr const char* kName = "g_main_context_invoke";

    GlibReceiver()
        : m_context(g_main_context_new()), m_loop(g_main_loop_new(m_context, FALSE)), m_thread([this] {
              g_main_context_push_thread_default(m_context);
              g_main_loop_run(m_loop);
              g_main_context_pop_thread_default(m_context);
          }) {
        // A loop that does not run yet lets the caller handle what it invokes.
        while (g_main_loop_is_running(m_loop) == FALSE) {
            std::this_thread::yield();
        }
    }
    ~GlibReceiver() {
        g_main_loop_quit(m_loop);
        m_thread.join();
        g_main_loop_unref(m_loop);
        g_main_context_unref(m_context);
    }
    GlibReceiver(const GlibReceiver&) = delete;
    GlibReceiver& operator=(const GlibReceiver&) = delete;
    void Send(Message* message) { g_main_context_invoke(m_context, HandleOnce, message); }

private:
    static gboolean HandleOnce(gpointer message) {
        Handle(message);
        return G_SOURCE_REMOVE;
    }

    GMainContext* m_context;
    GMainLoop* m_loop;
    std::thread m_thread;
};

class QueueReceiver {
public:
    static constexpr const char* kName = "GAsyncQueue";

    QueueReceiver() : m_queue(g_async_queue_new()), m_thread([this] { m_Loop(); }) {}
    ~QueueReceiver() {
        g_async_queue_push(m_queue, this);  // the end
        m_thread.join();
        g_async_queue_unref(m_queue);
    }
    QueueReceiver(const QueueReceiver&) = delete;
    QueueReceiver& operator=(const QueueReceiver&) = delete;
    void Send(Message* message) { g_async_queue_push(m_queue, message); }

private:
    void m_Loop() {
        for (void* message = nullptr; (message = g_async_queue_pop(m_queue)) != this;) {
            Handle(message);
        }
    }

    GAsyncQueue* m_queue;
    std::thread m_thread;
};

}  // namespace bench
