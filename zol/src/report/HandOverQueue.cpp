#include "HandOverQueue.h"

#include "VconfString.h"

namespace zol {

std::recursive_mutex HandOverQueue::s_mutex;

bool HandOverQueue::EmptyKey() {
    return vconf_set_str(KEY, "") == 0;
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
    const std::optional<bool> isEmpty = IsKeyEmpty();
    if (!isEmpty) {
        return Offered::UNREADABLE;
    }
    if (!*isEmpty) {
        m_notiPathList.push_back(path);
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
    return first;
}

std::size_t HandOverQueue::Waiting() const {
    const std::lock_guard<std::recursive_mutex> lock(s_mutex);
    return m_notiPathList.size();
}

}  // namespace zol
