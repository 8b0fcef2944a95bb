/// How late a timer of 10 ms is while every processor is busy: a task's, and beside it GLib's and asio's.
///
///   bench_timers ROUNDS
///
/// Prints lines of PrintSamples, "late/<timer>". A timer that counts whole milliseconds may be early by part
/// of one.
#include <glib.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>
#include <vector>

#include "Handler.h"
#include "Task.h"
#include "events/message.h"
#include "samples.h"

namespace {

using bench::NowNs;

constexpr int kPeriodMs = 10;
constexpr std::int64_t kPeriodNs = std::int64_t{kPeriodMs} * 1000000;
constexpr unsigned long kTimer = 1;

/// Threads that compute and do nothing else, one for each processor.
class Load {
public:
    Load() {
        for (unsigned i = 0; i < std::thread::hardware_concurrency(); ++i) {
            m_threads.emplace_back([this] {
                while (!m_isOver.load(std::memory_order_relaxed)) {
                }
            });
        }
    }
    ~Load() {
        m_isOver = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

private:
    std::atomic<bool> m_isOver{false};
    std::vector<std::thread> m_threads;
};

/// What each timer does when it is due.
class Lateness {
public:
    explicit Lateness(int rounds) : m_left(rounds) {}
    void Begin() { m_due = NowNs() + kPeriodNs; }
    /// Whether another round follows.
    bool Note() {
        m_late.push_back(NowNs() - m_due);
        return --m_left > 0;
    }
    void Print(const char* timer) const { bench::PrintSamples(std::string("late/") + timer, m_late); }

private:
    int m_left;
    std::int64_t m_due = 0;
    std::vector<std::int64_t> m_late;
};

class Task : public CCTask, public CCHandler {
public:
    explicit Task(Lateness& lateness) : m_lateness(lateness) {
        if (!CCTask::Create("bench", 8192) || !CCHandler::Create(this)) {
            std::abort();
        }
    }
    ~Task() override {
        CCHandler::Destroy();
        ExitLoop();
        CCTask::Destroy();
    }
    void Destroy() override {}
    void Run() {
        m_Set();
        m_over.Await();
    }

protected:
    bool t_OnEvent(const CSEvent* /*event*/) override { return true; }
    void t_OnTimer(unsigned long id) override {
        const bool goesOn = m_lateness.Note();
        if (!KillTimer(id)) {
            std::abort();
        }
        goesOn ? m_Set() : bench::Handle(&m_over);
    }

private:
    void m_Set() {
        m_lateness.Begin();
        if (!SetTimer(kTimer, kPeriodMs)) {
            std::abort();
        }
    }

    Lateness& m_lateness;
    bench::Message m_over;
};

void MeasureTask(int rounds) {
    Lateness lateness(rounds);
    Task(lateness).Run();
    lateness.Print("task");
}

struct GlibRun {
    Lateness lateness;
    GMainLoop* loop;
};

gboolean OnGlibTimer(gpointer data) {
    auto* run = static_cast<GlibRun*>(data);
    if (run->lateness.Note()) {
        run->lateness.Begin();
        g_timeout_add(kPeriodMs, OnGlibTimer, run);
    } else {
        g_main_loop_quit(run->loop);
    }
    return G_SOURCE_REMOVE;
}

void MeasureGlib(int rounds) {
    GlibRun run{Lateness(rounds), g_main_loop_new(nullptr, FALSE)};
    run.lateness.Begin();
    g_timeout_add(kPeriodMs, OnGlibTimer, &run);
    g_main_loop_run(run.loop);
    g_main_loop_unref(run.loop);
    run.lateness.Print("g_timeout_add");
}

void WaitAsio(boost::asio::steady_timer& timer, Lateness& lateness) {
    lateness.Begin();
    timer.expires_after(std::chrono::milliseconds(kPeriodMs));
    timer.async_wait([&](const boost::system::error_code&) {
        if (lateness.Note()) {
            WaitAsio(timer, lateness);
        }
    });
}

void MeasureAsio(int rounds) {
    boost::asio::io_context context(1);
    boost::asio::steady_timer timer(context);
    Lateness lateness(rounds);
    WaitAsio(timer, lateness);
    context.run();
    lateness.Print("boost::asio::steady_timer");
}

}  // namespace

int main(int argc, char** argv) try {
    const int rounds = argc == 2 ? std::atoi(argv[1]) : 200;
    const Load load;
    MeasureTask(rounds);
    MeasureGlib(rounds);
    MeasureAsio(rounds);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "bench_timers: %s\n", error.what());
    return 1;
}
