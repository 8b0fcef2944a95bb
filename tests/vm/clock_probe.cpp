/// Sets the machine's real clock around a task's timer and says what became of it: a line for each question,
/// and status 1 where an answer is wrong. For a virtual machine: the clock is wrong by the program's own
/// delays afterwards.
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <thread>

#include "Handler.h"
#include "Task.h"

namespace {

using std::chrono::milliseconds;
using Steady = std::chrono::steady_clock;

constexpr std::int64_t kHourSeconds = 3600;
constexpr unsigned long kHourMs = 3600000;
constexpr unsigned long kShortMs = 3000;
constexpr milliseconds kPatience(20000);
/// An emulated processor is slow; a task that looked around now and then would take longer.
constexpr milliseconds kSoon(200);
/// It contends for locks with who asks; one that looked around would sleep hundreds of times.
constexpr long kFewSleeps = 5;
constexpr int kEvents = 1000000;
constexpr int kSenders = 4;
constexpr int kBurst = 500;
/// An emulated processor on a busy host stalls for half a second; who is not woken waits much longer.
constexpr long kLatestUs = 2000000;

/// Counts how often its timer fires.
class Clockwork : public CCTask, public CCHandler {
public:
    bool Start() { return CCTask::Create("clock_probe", 8192) && CCHandler::Create(this); }
    void End() {
        CCHandler::Destroy();
        ExitLoop();
        CCTask::Destroy();
    }
    /// How often the task's thread has gone to sleep, this question included.
    long Sleeps() {
        CSEvent question;
        question.receiver = this;
        return Send(&question, true) ? m_sleeps.load() : -1;
    }
    /// False when the queue is full.
    bool SendNow() {
        CSEvent event;
        event.receiver = this;
        event.type = kSent;
        event.param.l[0] = Microseconds();
        return Send(&event, false);
    }
    int Fired() const { return m_fired; }
    int Handled() const { return m_handled; }
    long LatestUs() const { return m_latestUs; }

    bool t_OnEvent(const CSEvent* event) override {
        if (event->type == kSent) {
            m_latestUs = std::max<long>(m_latestUs, (Microseconds() - event->param.l[0]) & kMask);
            ++m_handled;
            return true;
        }
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        m_sleeps = usage.ru_nvcsw;
        return true;
    }
    void t_OnTimer(unsigned long /*id*/) override { ++m_fired; }

private:
    static constexpr std::uint32_t kSent = 1;
    static constexpr long kMask = 0x3fffffff;

    /// Of a quarter of an hour, which fits an event.
    static long Microseconds() {
        const auto now = Steady::now().time_since_epoch();
        return static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(now).count() & kMask);
    }

    std::atomic<long> m_sleeps{0};
    std::atomic<long> m_latestUs{0};
    std::atomic<int> m_fired{0};
    std::atomic<int> m_handled{0};
};

bool MoveClock(std::int64_t seconds) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += static_cast<time_t>(seconds);
    return clock_settime(CLOCK_REALTIME, &now) == 0;
}

/// How long it takes until the timer has fired so often; kPatience when it does not.
milliseconds TimeUntil(const Clockwork& clockwork, int fired) {
    const auto begin = Steady::now();
    while (clockwork.Fired() < fired && Steady::now() - begin < kPatience) {
        std::this_thread::sleep_for(milliseconds(1));
    }
    return std::chrono::duration_cast<milliseconds>(Steady::now() - begin);
}

bool Tell(const char* what, std::int64_t value, bool isRight) {
    std::printf("%s: %" PRId64 "%s\n", what, value, isRight ? "" : " WRONG");
    return isRight;
}

bool Probe(Clockwork& clockwork) {
    bool isRight = clockwork.SetTimer(1, kHourMs);
    const long before = clockwork.Sleeps();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const long sleeps = clockwork.Sleeps() - before;
    isRight &= Tell("sleeps in five seconds, the question included", sleeps, sleeps <= kFewSleeps);

    isRight &= MoveClock(kHourSeconds + 1);
    milliseconds took = TimeUntil(clockwork, 1);
    isRight &= Tell("ms to fire when the clock is set past it", took.count(), took < kSoon);

    isRight &= clockwork.SetTimer(1, kShortMs) && MoveClock(-kHourSeconds);
    std::this_thread::sleep_for(milliseconds(2 * kShortMs));
    isRight &= Tell("fired while the clock is an hour back", clockwork.Fired() - 1, clockwork.Fired() == 1);

    isRight &= MoveClock(kHourSeconds);
    took = TimeUntil(clockwork, 2);
    isRight &= Tell("ms to fire when it is set forward again", took.count(), took < kSoon);

    took = TimeUntil(clockwork, 3);
    const bool isThere = took + kSoon > milliseconds(kShortMs) && took < milliseconds(kShortMs) + kSoon;
    return Tell("ms to the next one, of 3000", took.count(), isThere) && isRight && MoveClock(-1);
}

/// Events of four threads, a timer of a millisecond, and a clock that jumps all the time: none may be lost,
/// or wait for longer than the processor is busy with the others.
bool Stress(Clockwork& clockwork) {
    bool isRight = clockwork.SetTimer(1, 1);
    std::atomic<bool> isOver{false};
    std::thread jumper([&isOver] {
        std::int64_t away = 0;
        for (int turn = 0; !isOver; ++turn) {
            const std::int64_t jump = turn % 3 == 0 ? kHourSeconds : -kHourSeconds / 2;
            away += MoveClock(jump) ? jump : 0;
            std::this_thread::sleep_for(milliseconds(5));
        }
        MoveClock(-away);
    });
    std::array<std::thread, kSenders> senders;
    for (std::thread& sender : senders) {
        sender = std::thread([&clockwork] {
            for (int sent = 0; sent < kEvents / kSenders; ++sent) {
                while (!clockwork.SendNow()) {
                    std::this_thread::yield();
                }
                // Now and then the receiver is to fall asleep.
                if (sent % kBurst == 0) {
                    std::this_thread::sleep_for(milliseconds(1));
                }
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    isOver = true;
    jumper.join();
    static_cast<void>(clockwork.Sleeps());  // behind all of them
    isRight &= Tell("events handled of a million", clockwork.Handled(), clockwork.Handled() == kEvents);
    return Tell("us that the latest has waited", clockwork.LatestUs(), clockwork.LatestUs() < kLatestUs) &&
           isRight;
}

}  // namespace

int main() {
    Clockwork clockwork;
    if (!clockwork.Start()) {
        std::fputs("clock_probe: no task\n", stderr);
        return 1;
    }
    bool isRight = Probe(clockwork);
    isRight = Stress(clockwork) && isRight;
    clockwork.End();
    return isRight ? 0 : 1;
}
