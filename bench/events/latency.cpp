/// From sending an event to its handler: to a receiver that sleeps and to one that is awake, from one and
/// from four senders at once; and events back to back. A task of the runtime, and beside it other ways.
///
///   bench_events ROUNDS
///
/// Asleep: each round begins when the kernel says that the receiver's thread sleeps. Awake: the receiver is
/// in the handler of an earlier event, which returns as soon as all senders have sent. Times are from just
/// before a sender sends to its event's handler. Prints lines of PrintSamples, "<case>/<receiver>".
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "receivers.h"

namespace {

using bench::Gate;
using bench::Message;
using bench::NowNs;

/// Waits until the kernel has taken a thread of this process off its processor: it waits for something.
void AwaitSleep(pid_t thread) {
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/stat";
    for (int seen = 0; seen < 2;) {
        std::ifstream file(path);
        std::string line;
        std::getline(file, line);
        const bool isAsleep = line.compare(line.rfind(')') + 2, 1, "S") == 0;
        seen = isAsleep ? seen + 1 : 0;
        if (!isAsleep) {
            std::this_thread::yield();
        }
    }
}

class Barrier {
public:
    explicit Barrier(unsigned count) { pthread_barrier_init(&m_barrier, nullptr, count); }
    ~Barrier() { pthread_barrier_destroy(&m_barrier); }
    Barrier(const Barrier&) = delete;
    Barrier& operator=(const Barrier&) = delete;
    void Wait() { pthread_barrier_wait(&m_barrier); }

private:
    pthread_barrier_t m_barrier{};
};

/// Rounds in which each of some senders sends one event at the same time.
template <class Receiver>
class Rounds {
public:
    Rounds(unsigned senders, int rounds, bool isAwake)
        : m_isAwake(isAwake), m_rounds(rounds), m_begin(senders + 1), m_end(senders + 1), m_took(senders) {
        std::vector<std::thread> threads;
        for (std::vector<std::int64_t>& took : m_took) {
            threads.emplace_back([this, &took] { m_Send(took); });
        }
        for (int round = 0; round < rounds; ++round) {
            m_isAwake ? m_RoundAwake() : m_RoundAsleep();
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    [[nodiscard]] std::vector<std::int64_t> Took() const {
        std::vector<std::int64_t> all;
        for (const std::vector<std::int64_t>& took : m_took) {
            all.insert(all.end(), took.begin(), took.end());
        }
        return all;
    }

private:
    /// One sender's thread.
    void m_Send(std::vector<std::int64_t>& took) {
        for (int round = 0; round < m_rounds; ++round) {
            Message message;
            m_begin.Wait();
            const std::int64_t begin = NowNs();
            m_receiver.Send(&message);
            if (m_gate != nullptr) {
                --m_gate->toPass;
            }
            message.Await();
            took.push_back(message.handled - begin);
            m_end.Wait();
        }
    }

    void m_RoundAsleep() {
        Message first;
        m_receiver.Send(&first);
        first.Await();
        AwaitSleep(first.thread);
        m_begin.Wait();
        m_end.Wait();
    }

    void m_RoundAwake() {
        Gate gate;
        gate.toPass = static_cast<unsigned>(m_took.size());
        m_gate = &gate;
        Message holding;
        holding.gate = &gate;
        m_receiver.Send(&holding);
        while (!gate.isHeld) {
            std::this_thread::yield();
        }
        m_begin.Wait();
        m_end.Wait();
        holding.Await();
    }

    const bool m_isAwake;
    const int m_rounds;
    Receiver m_receiver;
    Gate* m_gate = nullptr;  ///< of the round; the barrier hands it to the senders
    Barrier m_begin;
    Barrier m_end;
    std::vector<std::vector<std::int64_t>> m_took;
};

template <class Receiver>
void MeasureLatency(int rounds) {
    for (const bool isAwake : {false, true}) {
        for (const unsigned senders : {1U, 4U}) {
            const Rounds<Receiver> run(senders, rounds, isAwake);
            bench::PrintSamples(std::string(isAwake ? "awake" : "asleep") + " " + std::to_string(senders) +
                                    "/" + Receiver::kName,
                                run.Took());
        }
    }
}

/// Nanoseconds for each event of a batch that one thread sends as fast as it can.
template <class Receiver>
void MeasureBatches(int rounds) {
    constexpr int kBatch = 10000;
    Receiver receiver;
    std::vector<std::int64_t> took;
    std::vector<Message> messages(kBatch);
    for (int round = 0; round < rounds; ++round) {
        const std::int64_t begin = NowNs();
        for (Message& message : messages) {
            receiver.Send(&message);
        }
        for (Message& message : messages) {
            message.Await();
        }
        took.push_back((messages.back().handled - begin) / kBatch);
    }
    bench::PrintSamples(std::string("back to back/") + Receiver::kName, took);
}

template <class Receiver>
void Measure(int rounds) {
    MeasureLatency<Receiver>(rounds);
    MeasureBatches<Receiver>(std::max(3, rounds / 200));
}

}  // namespace

int main(int argc, char** argv) try {
    const int rounds = argc == 2 ? std::atoi(argv[1]) : 1000;
    Measure<bench::TaskReceiver>(rounds);
    Measure<bench::AsioReceiver>(rounds);
    Measure<bench::GlibReceiver>(rounds);
    Measure<bench::QueueReceiver>(rounds);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "bench_events: %s\n", error.what());
    return 1;
}
