#include "HandOverQueue.h"

#include <algorithm>
#include <utility>

#include "VconfString.h"

namespace zol {

std::recursive_mutex HandOverQueue::s_mutex;
std::vector<const HandOverQueue*> HandOverQueue::s_queues;
bool HandOverQueue::s_isEmptyingDue = false;
std::atomic<std::size_t> HandOverQueue::s_waiting{0};

HandOverQueue::HandOverQueue() {
    const std::lock_guard<std::recursive_mutex> lock(s_mutex);
    s_queues.push_back(this);
}

HandOverQueue::~HandOverQueue() {
    const std::lock_guard<std::recursive_mutex> lock(s_mutex);
    s_waiting -= m_notiPathList.size();
    s_queues.erase(std::find(s_queues.begin(), s_queues.end(), this));
}

bool HandOverQueue::EmptyKey() {
    const std::lock_guard<std::recursive_mutex> lock(s_mutex);
    s_isEmptyingDue = vconf_set_str(KEY, "") != 0;
    return !s_isEmptyingDue;
}

std::optional<bool> HandOverQueue::IsKeyEmpty() noexcept {
    const VconfString value = GetVconfString(KEY);
    return value != nullptr ? std::optional<bool>(*value == '\0') : std::nullopt;
}

bool HandOverQueue::Watch(vconf_callback_fn callback, void* userData) {
    m_watch = WatchKey(KEY, callback, userData);
    return static_cast<bool>(m_watch);
}

HandOverQueue::Offered HandOverQueue::Offer(const std::string& path) {
    const std::lock_guard<std::recursive_mutex> lock(s_mutex);
    std::optional<bool> isEmpty = IsKeyEmpty();
    // A missing key makes every path be dropped; a path that an earlier run left makes them all wait.
    if (std::exchange(s_isEmptyingDue, false) && !isEmpty.value_or(false) && EmptyKey()) {
        isEmpty = IsKeyEmpty();
    }
    if (!isEmpty) {
        return Offered::UNREADABLE;
    }
    if (!*isEmpty) {
        m_notiPathList.push_back(path);
        ++s_waiting;
        return Offered::WAITING;
    }
    return vconf_set_str(KEY, path.c_str()) == 0 ? Offered::PUBLISHED : Offered::UNWRITABLE;
}

std::optional<std::string> HandOverQueue::TakeFirst() {
    const std::lock_guard<std::recursive_mutex> lock(s_mutex);
    if (m_notiPathList.empty()) {
        return std::nullopt;
    }
    std::optional<std::string> first = std::move(m_notiPathList.front());
    m_notiPathList.pop_front();
    --s_waiting;
    return first;
}

std::unique_lock<std::recursive_mutex> HandOverQueue::Lock() {
    return std::unique_lock<std::recursive_mutex>(s_mutex);
}

std::optional<std::vector<std::string>> HandOverQueue::Awaited() {
    const std::lock_guard<std::recursive_mutex> lock(s_mutex);
    const VconfString published = GetVconfString(KEY);
    if (published == nullptr) {
        return std::nullopt;
    }
    std::vector<std::string> paths = {published.get()};
    for (const HandOverQueue* queue : s_queues) {
        paths.insert(paths.end(), queue->m_notiPathList.begin(), queue->m_notiPathList.end());
    }
    return paths;
}

std::size_t HandOverQueue::Waiting() const {
    const std::lock_guard<std::recursive_mutex> lock(s_mutex);
    return m_notiPathList.size();
}

}  // namespace zol
