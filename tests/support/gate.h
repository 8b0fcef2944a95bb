#pragma once
/// Stops threads at a chosen point of a test.
#include <condition_variable>
#include <mutex>

#include "waiting.h"

class Gate {
public:
    /// Waits until the gate is open.
    void Pass() {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_arrived;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_passes > 0; });
        --m_passes;
    }
    /// Lets one thread through.
    void Open() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_passes;
        m_changed.notify_all();
    }
    /// Waits until so many have come to the gate altogether; false when patience ends.
    bool AwaitArrival(int arrivals = 1) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, kPatience, [&] { return m_arrived >= arrivals; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_arrived = 0;
    int m_passes = 0;
};

/// A number that a test waits for.
class Counter {
public:
    void Add() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_value;
        m_changed.notify_all();
    }
    int Value() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_value;
    }
    /// False when patience ends.
    bool Await(int value) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, kPatience, [&] { return m_value >= value; });
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_value = 0;
};
