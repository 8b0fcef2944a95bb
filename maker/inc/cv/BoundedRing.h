#pragma once
/// The newest entries of a stream, in memory that never grows.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace cv {

/// Entries have positions that count up from 0 for ever. Any thread. For static objects: it needs no heap,
/// its pages are touched only as entries come, and nothing has to be destroyed.
template <class T, std::size_t capacity>
class BoundedRing {
public:
    static constexpr std::size_t CAPACITY = capacity;

    void Push(const T& entry) {
        const Lock lock(m_mutex);
        if (m_end - m_begin == capacity) {
            ++m_begin;
            ++m_lost;
        }
        m_entries[static_cast<std::size_t>(m_end++ % capacity)] = entry;
    }

    /// A copy, oldest first; may throw std::bad_alloc. In `end`, unless it is null, the position behind the
    /// newest entry.
    [[nodiscard]] std::vector<T> Items(std::uint64_t* end = nullptr) const {
        const Lock lock(m_mutex);
        std::vector<T> items;
        items.reserve(static_cast<std::size_t>(m_end - m_begin));
        for (std::uint64_t position = m_begin; position != m_end; ++position) {
            items.push_back(m_entries[static_cast<std::size_t>(position % capacity)]);
        }
        if (end != nullptr) {
            *end = m_end;
        }
        return items;
    }

    /// Removes the entries before a position that Items gave.
    void DiscardBefore(std::uint64_t end) {
        const Lock lock(m_mutex);
        m_begin = std::clamp(end, m_begin, m_end);
    }

    void Clear() {
        const Lock lock(m_mutex);
        m_begin = m_end;
        m_lost = 0;
    }

    /// Entries lost to newer ones since the process began or Clear.
    [[nodiscard]] std::uint64_t Lost() const {
        const Lock lock(m_mutex);
        return m_lost;
    }

private:
    using Lock = std::lock_guard<std::mutex>;

    mutable std::mutex m_mutex;  // guards all below
    std::array<T, capacity> m_entries;
    std::uint64_t m_begin = 0;
    std::uint64_t m_end = 0;
    std::uint64_t m_lost = 0;
};

}  // namespace cv
