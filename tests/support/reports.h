#pragma once
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "waiting.h"

/// What callbacks reported, in order.
template <typename T>
class Reports {
public:
    void Add(T report) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_reports.push_back(std::move(report));
        m_added.notify_all();
    }
    /// All reports as soon as there are `count` of them, or what there is when patience ends.
    std::vector<T> WaitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_added.wait_for(lock, kPatience, [&] { return m_reports.size() >= count; });
        return m_reports;
    }
    std::vector<T> Now() { return WaitFor(0); }

private:
    std::mutex m_mutex;
    std::condition_variable m_added;
    std::vector<T> m_reports;
};
