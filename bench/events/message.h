#pragma once
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "samples.h"

namespace bench {

/// Keeps a receiver awake: its handler does not return before every sender has passed.
struct Gate {
    std::atomic<bool> isHeld{false};
    std::atomic<unsigned> toPass{0};
};

/// What is sent to a receiver, and what came of it.
struct Message {
    Gate* gate = nullptr;      ///< the handler waits for it; null: it does not
    std::int64_t handled = 0;  ///< when, before the handler does anything else
    pid_t thread = 0;          ///< the receiver's
    sem_t done{};

    Message() { sem_init(&done, 0, 0); }
    ~Message() { sem_destroy(&done); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    void Await() {
        while (sem_wait(&done) != 0) {
        }
    }
};

/// What every receiver does with a message.
inline void Handle(void* data) {
    auto* message = static_cast<Message*>(data);
    message->handled = NowNs();
    message->thread = static_cast<pid_t>(syscall(SYS_gettid));
    if (Gate* gate = message->gate) {
        gate->isHeld = true;
        while (gate->toPass != 0) {
            std::this_thread::yield();
        }
    }
    sem_post(&message->done);
}

}  // namespace bench
