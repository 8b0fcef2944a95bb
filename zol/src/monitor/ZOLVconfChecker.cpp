#include "ZOLVconfChecker.h"

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <utility>

#include "ExceptionWall.h"
#include "Log.h"
#include "PolicyRule.h"
#include "PolicyWords.h"
#include "VconfString.h"
#include "WorkerTask.h"
#include "ZOLNotifyManager.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCVconfChecker";
constexpr const char* kSource = "zol/src/ZOLVconfChecker";

constexpr const char* kTaskName = "ZOLVconfChecker";

/// What is reported of a value that the rule did not give out.
constexpr int kNoInteger = -1;
constexpr const char* kNoText = "null";

}  // namespace

TCVconfChecker::TCVconfChecker(TCNotifyManager* notify, SharedVconfItems items)
    : m_pNotify(notify),
      m_monitorList(std::move(items)),
      m_byKey(Items().size()),
      m_states(Items().size(), EState::WAITING) {
    std::iota(m_byKey.begin(), m_byKey.end(), 0U);
    std::stable_sort(m_byKey.begin(), m_byKey.end(),
                     [this](auto one, auto other) { return Items()[one].key < Items()[other].key; });
}

TCVconfChecker::TCVconfChecker(TCNotifyManager* notify, std::vector<ZOLVconfMonitor> items)
    : TCVconfChecker(notify, std::make_shared<const std::vector<ZOLVconfMonitor>>(std::move(items))) {}

TCVconfChecker::~TCVconfChecker() {
    for (const Unread& unread : m_unread) {
        m_states[unread.position] = unread.watch ? EState::UNREAD : EState::WATCHED;
    }
    for (std::size_t position = 0; position < m_states.size(); ++position) {
        if (m_states[position] == EState::WATCHED) {
            vconf_withdraw_key_changed(Items()[position].key.c_str(), m_KeyChangedCb, this);
        }
    }
    if (CCTask::FlagCreate()) {
        TCVconfChecker::Destroy();
    }
}

bool TCVconfChecker::Create() {
    ZOL_LOG(LOG_INFO, "[TCVconfChecker] Create");
    if (!StartWorkerTask(*this, *this, kTaskName, kSource, __LINE__)) {
        return false;
    }
    ZOL_LOG(LOG_INFO, "[TCVconfChecker] Created");
    return true;
}

void TCVconfChecker::Destroy() {
    ZOL_LOG(LOG_INFO, "[TCVconfChecker] Destroy");
    EndWorkerTask(*this, *this);
    ZOL_LOG(LOG_INFO, "[TCVconfChecker] Destroyed");
}

bool TCVconfChecker::t_OnEvent(const CSEvent* /*event*/) {
    return true;
}

void TCVconfChecker::CheckNow(const std::vector<ZOLVconfMonitor>& items) {
    for (std::size_t position = 0; position < items.size(); ++position) {
        if (!m_CheckOrWatch(position)) {
            m_refused.push_back(position);
        }
    }
    m_NotifyPending();
}

void TCVconfChecker::WatchRest() {
    // What comes after one that is refused would be refused, too.
    while (!m_refused.empty() && m_CheckOrWatch(m_refused.back())) {
        m_refused.pop_back();
    }
    m_NotifyPending();
}

void TCVconfChecker::m_NotifyPending() {
    if (m_bNotifyPending) {
        Notify();
        m_bNotifyPending = false;
    }
}

bool TCVconfChecker::m_CheckOrWatch(std::size_t position) {
    const ZOLVconfMonitor& item = Items()[position];
    EState& state = m_states[position];
    // Watched first, so that no change falls in between.
    KeyWatch watch = m_Watch(item.key);
    const bool isNoKey = errno == EINVAL;
    const bool isString = m_GetValueType(item.type) == VALUE_TYPE_STRING;
    if (m_CheckItem(item, isString)) {
        state = EState::REPORTED;
        return true;
    }
    if (!watch) {
        ZOL_LOG(LOG_ERROR, "[%s] failed", item.key.c_str());
        state = isNoKey ? EState::NO_KEY : EState::WAITING;
        return isNoKey;
    }
    ZOL_LOG(LOG_ERROR, "[%s] registered", item.key.c_str());
    if (m_isUnreadable) {
        m_ReadLater(position, isString, std::move(watch));
    } else {
        watch.Release();
        state = EState::WATCHED;
    }
    return true;
}

KeyWatch TCVconfChecker::m_Watch(const std::string& key) {
    if (vconf_notify_key_changed(key.c_str(), m_KeyChangedCb, this) < 0) {
        return {};
    }
    // Without an allocation: the key stays where it is as long as the watch.
    return KeyWatch([this, name = key.c_str()] { vconf_withdraw_key_changed(name, m_KeyChangedCb, this); });
}

void TCVconfChecker::m_ReadLater(std::size_t position, bool isString, KeyWatch watch) {
    ZOL_LOG(LOG_ERROR, "[%s] cannot be read: trying again until it can", Items()[position].key.c_str());
    m_unread.push_back({position, isString, std::move(watch)});
    m_states[position] = EState::UNREAD;
    if (m_retry == nullptr) {
        m_retry = base::StartTimer(nullptr, m_backoff.Next(), [this] { m_ReadAgain(); });
    }
}

void TCVconfChecker::m_ReadAgain() {
    // First, so that whatever fails below is tried again.
    m_retry = base::StartTimer(nullptr, m_backoff.Next(), [this] { m_ReadAgain(); });
    CatchAll(kLogModule, [this] {
        // Each is an attempt of up to seconds: the first that fails says how the store is.
        while (!m_unread.empty()) {
            Unread& next = m_unread.back();
            const bool holds = m_CheckItem(Items()[next.position], next.isString);
            if (m_isUnreadable) {
                // The next time with another one: it may be this key alone.
                std::rotate(m_unread.begin(), m_unread.end() - 1, m_unread.end());
                break;
            }
            const bool isWatchedNoMore = holds && next.watch;
            if (!isWatchedNoMore) {
                next.watch.Release();
            }
            m_states[next.position] = isWatchedNoMore ? EState::REPORTED : EState::WATCHED;
            m_unread.pop_back();
        }
        m_NotifyPending();
    });
    if (m_unread.empty()) {
        m_retry.reset();
        m_backoff.Reset();
    }
}

void TCVconfChecker::m_KeyChangedCb(keynode_t* node, void* userData) {
    if (node == nullptr || userData == nullptr || node->keyname == nullptr) {
        return;
    }
    ZOL_LOG(LOG_ERROR, "[m_KeyChangedCb] key : %s", node->keyname);
    try {
        auto* self = static_cast<TCVconfChecker*>(userData);
        if (self->m_Check(node)) {
            ZOL_LOG(LOG_ERROR, "found on list!");
            self->m_NotifyPending();
        }
    } catch (...) {
        LogCallbackException(kLogModule);
    }
}

std::optional<std::size_t> TCVconfChecker::m_FindFirst(std::string_view key) const {
    const auto first = std::lower_bound(
        m_byKey.begin(), m_byKey.end(), key,
        [this](auto position, std::string_view wanted) { return Items()[position].key < wanted; });
    return first != m_byKey.end() && Items()[*first].key == key ? std::optional<std::size_t>(*first)
                                                                : std::nullopt;
}

bool TCVconfChecker::m_Check(const keynode_t* node) {
    const std::optional<std::size_t> first = m_FindFirst(node->keyname);
    if (!first) {
        return false;
    }
    const ZOLVconfMonitor& item = Items()[*first];
    ZOL_LOG(LOG_ERROR, "find!");
    m_DropUnread(*first);
    // The key's own type decides, whatever the item says.
    const int type = vconf_keynode_get_type(node);
    if (type != VCONF_TYPE_STRING && type != VCONF_TYPE_INT) {
        return false;
    }
    const bool isString = type == VCONF_TYPE_STRING;
    const bool holds = m_CheckItem(item, isString);
    if (m_isUnreadable) {
        m_ReadLater(*first, isString, {});
    }
    return holds;
}

void TCVconfChecker::m_DropUnread(std::size_t position) {
    const auto unread = std::find_if(m_unread.begin(), m_unread.end(),
                                     [position](const Unread& each) { return each.position == position; });
    if (unread == m_unread.end()) {
        return;
    }
    unread->watch.Release();
    m_unread.erase(unread);
    m_states[position] = EState::WATCHED;
}

bool TCVconfChecker::m_CheckItem(const ZOLVconfMonitor& item, bool isString) {
    int value = kNoInteger;
    std::string text = kNoText;
    bool holds = false;
    m_isUnreadable = false;
    if (isString) {
        holds = m_CheckStringType(item.key, item.condition, item.strValue, text);
    } else if (m_GetCondition(item.condition) == CONDITION_BETWEEN) {
        holds = m_CheckIntType(item.key, item.greater, item.less, value);
    } else {
        holds = m_CheckIntType(item.key, item.condition, item.intValue, value);
    }
    if (holds) {
        m_AddNotify(item, value, text);
    }
    return holds;
}

bool TCVconfChecker::m_CheckIntType(const std::string& key, const std::string& condition, int value,
                                    int& out) {
    int read = 0;
    if (vconf_get_int(key.c_str(), &read) != 0) {
        m_isUnreadable = errno == EIO;
        ZOL_LOG(LOG_ERROR, "vconf_get_int() fail");
        return false;
    }
    out = read;
    const int code = m_GetCondition(condition);
    const bool holds = Holds(code, read, value);
    // Each text in full, so that a search for what a log shows finds its place.
    if (holds && code == CONDITION_IS) {
        ZOL_LOG(LOG_ERROR, "[m_CheckIntType] vconfValue[%d] == value[%d], send event to notify", read, value);
    } else if (holds && code == CONDITION_NOT) {
        ZOL_LOG(LOG_ERROR, "[m_CheckIntType] vconfValue[%d] != value[%d], send event to notify", read, value);
    } else if (holds && code == CONDITION_GREATER) {
        ZOL_LOG(LOG_ERROR, "[m_CheckIntType] vconfValue[%d] > value[%d], send event to notify", read, value);
    } else if (holds && code == CONDITION_LESS) {
        ZOL_LOG(LOG_ERROR, "[m_CheckIntType] vconfValue[%d] < value[%d], send event to notify", read, value);
    } else if (code < CONDITION_IS || code > CONDITION_LESS) {
        ZOL_LOG(LOG_ERROR, "[m_CheckIntType] condition[%d]", code);
    }
    return holds;
}

bool TCVconfChecker::m_CheckIntType(const std::string& key, int greater, int less, int& out) {
    int read = 0;
    if (vconf_get_int(key.c_str(), &read) != 0) {
        m_isUnreadable = errno == EIO;
        ZOL_LOG(LOG_ERROR, "vconf_get_int() fail");
        return false;
    }
    if (IsBetween(greater, read, less)) {
        // The value is deliberately not given out: a hit of this rule is reported as -1.
        ZOL_LOG(LOG_ERROR, "[m_CheckIntType] greater[%d] < vconfValue[%d] < less[%d], send event to notify",
                greater, read, less);
        return true;
    }
    out = read;
    return false;
}

bool TCVconfChecker::m_CheckStringType(const std::string& key, const std::string& condition,
                                       const std::string& strValue, std::string& out) {
    const VconfString read = GetVconfString(key.c_str());
    if (read == nullptr) {
        m_isUnreadable = errno == EIO;
        ZOL_LOG(LOG_ERROR, "vconf_get_str() fail");
        return false;
    }
    out = read.get();
    const int code = m_GetCondition(condition);
    ZOL_LOG(LOG_ERROR, "[m_CheckStringType] vconfValue[%s] condition[%d] strValue[%s]", out.c_str(), code,
            strValue.c_str());
    const bool holds = Holds(code, out, strValue);
    if (holds && code == CONDITION_IS) {
        ZOL_LOG(LOG_ERROR, "[m_CheckStringType] vconfValue[%s] == strValue[%s], send event to notify",
                out.c_str(), strValue.c_str());
    } else if (holds) {
        ZOL_LOG(LOG_ERROR, "[m_CheckStringType] vconfValue[%s] != strValue[%s], send event to notify",
                out.c_str(), strValue.c_str());
    }
    return holds;
}

int TCVconfChecker::m_GetCondition(const std::string& word) {
    return CodeOf(kConditionWords, word);
}

int TCVconfChecker::m_GetValueType(const std::string& word) {
    return CodeOf(kValueTypeWords, word);
}

void TCVconfChecker::m_AddNotify(ZOLVconfMonitor item, int value, std::string text) {
    if (m_pNotify != nullptr) {
        m_pNotify->AddNotify(std::move(item), value, std::move(text));
    }
    m_bNotifyPending = true;
}

void TCVconfChecker::Notify() {
    ZOL_LOG(LOG_ERROR, "m_Notify() CALL");
    if (m_pNotify == nullptr) {
        ZOL_LOG(LOG_ERROR, "m_pNotify is NULL");
        return;
    }
    CSEvent event;
    event.receiver = m_pNotify;
    event.type = NOTIFY_ZOL_VCONF;
    if (!CCTask::Send(&event, false)) {
        ZOL_LOG(LOG_ERROR, "Send() fail");
    }
}

}  // namespace zol
