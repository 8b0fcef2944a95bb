/// From sending an event to its handler, on an idle thread (latency) and back to back (events per second);
/// beside it the same through boost::asio::post to one thread and g_main_context_invoke.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>

#include "Event.h"
#include "Handler.h"
#include "Task.h"

namespace {

/// Counts what was handled; the sender spins until a count is reached.
std::atomic<std::uint64_t> g_handled{0};

void AwaitHandled(std::uint64_t count) {
    while (g_handled.load(std::memory_order_acquire) < count) {
        std::this_thread::yield();
    }
}

class TaskReceiver : public CCTask, public CCHandler {
public:
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
    void Send() {
        CSEvent event;
        event.receiver = this;
        event.type = 7;
        // The queue holds 255 events; a full one is the receiver's turn.
        while (!CCTask::Send(&event, false)) {
            std::this_thread::yield();
        }
    }

protected:
    bool t_OnEvent(const CSEvent* /*event*/) override {
        g_handled.fetch_add(1, std::memory_order_release);
        return true;
    }
};

class AsioReceiver {
public:
    AsioReceiver() : m_work(m_context.get_executor()), m_thread([this] { m_context.run(); }) {}
    ~AsioReceiver() {
        m_work.reset();
        m_thread.join();
    }
    void Send() {
        boost::asio::post(m_context, [] { g_handled.fetch_add(1, std::memory_order_release); });
    }

private:
    boost::asio::io_context m_context{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work;
    std::thread m_thread;
};

gboolean CountOnce(gpointer /*data*/) {
    g_handled.fetch_add(1, std::memory_order_release);
    return G_SOURCE_REMOVE;
}

class GlibReceiver {
public:
    GlibReceiver()
        : m_context(g_main_context_new()), m_loop(g_main_loop_new(m_context, FALSE)), m_thread([this] {
              g_main_context_push_thread_default(m_context);
              g_main_loop_run(m_loop);
              g_main_context_pop_thread_default(m_context);
          }) {}
    ~GlibReceiver() {
        while (g_main_loop_is_running(m_loop) == FALSE) {
            std::this_thread::yield();
        }
        g_main_loop_quit(m_loop);
        m_thread.join();
        g_main_loop_unref(m_loop);
        g_main_context_unref(m_context);
    }
    void Send() { g_main_context_invoke(m_context, CountOnce, nullptr); }

private:
    GMainContext* m_context;
    GMainLoop* m_loop;
    std::thread m_thread;
};

template <class Receiver>
void SendToHandled(benchmark::State& state) {
    Receiver receiver;
    g_handled = 0;
    std::uint64_t sent = 0;
    for (auto _ : state) {
        receiver.Send();
        AwaitHandled(++sent);
    }
}
BENCHMARK_TEMPLATE(SendToHandled, TaskReceiver)->UseRealTime();
BENCHMARK_TEMPLATE(SendToHandled, AsioReceiver)->UseRealTime();
BENCHMARK_TEMPLATE(SendToHandled, GlibReceiver)->UseRealTime();

template <class Receiver>
void EventsPerSecond(benchmark::State& state) {
    constexpr int kBatch = 10000;
    Receiver receiver;
    g_handled = 0;
    std::uint64_t sent = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) {
            receiver.Send();
        }
        sent += kBatch;
        AwaitHandled(sent);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(sent));
}
BENCHMARK_TEMPLATE(EventsPerSecond, TaskReceiver)->UseRealTime();
BENCHMARK_TEMPLATE(EventsPerSecond, AsioReceiver)->UseRealTime();
BENCHMARK_TEMPLATE(EventsPerSecond, GlibReceiver)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
