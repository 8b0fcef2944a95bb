#pragma once
/// Watches the vconf keys of a policy and tells the notify manager when one holds its rule.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Event.h"
#include "Handler.h"
#include "KeyWatch.h"
#include "Task.h"
#include "ZOLPolicy.h"
#include "base/backoff.h"
#include "base/glib_handles.h"
#include "vconf.h"

class TCNotifyManager;

namespace zol {

/// Construct, Create, CheckNow once, WatchRest while something is left to it, destroy. It works on the
/// threads that call it: CheckNow on its caller's, the key callback on vconf's; its own task handles nothing.
/// A key change costs the same whatever the number of items.
class TCVconfChecker final : public CCTask, public CCHandler {
public:
    enum class EState : std::uint8_t {
        WAITING,   ///< its watch was refused; left to WatchRest
        NO_KEY,    ///< no key may have that name
        UNREAD,    ///< watched, and its key could not be read yet
        WATCHED,   ///< judged after each change of its key, if it is the first item of that key
        REPORTED,  ///< held when it was checked first, and is not watched
    };

    /// @param notify receiver of the hits, not owned, must outlive this object; null: hits are lost
    /// @param items  the policy's items; of several with one key only the first is looked at on a change
    TCVconfChecker(TCNotifyManager* notify, SharedVconfItems items);
    TCVconfChecker(TCNotifyManager* notify, std::vector<ZOLVconfMonitor> items);
    /// Withdraws every key callback and, when the task runs, Destroy. Not on the task's own thread.
    ~TCVconfChecker() override;

    /// Starts the task. False, and logged, when it cannot; Destroy must not be called then.
    [[nodiscard]] bool Create();
    /// Ends the task. The key callbacks stay registered until the checker goes.
    void Destroy() override;

    /// Evaluates every item now; they are those of the constructor. One that holds is reported and not
    /// watched any further; for each other one the change callback is registered, and no change is missed in
    /// between. It must run on the thread that the callbacks come on, or before any do. All hits together end
    /// in one NOTIFY_ZOL_VCONF event. A key whose watch is refused is logged and left to WatchRest, unless no
    /// key may have that name. One that is there and cannot be read, now or after a change, is read again
    /// until it can be or changes.
    void CheckNow(const std::vector<ZOLVconfMonitor>& items);
    /// Watches what CheckNow could not, as far as the first item that is refused again. One that holds
    /// meanwhile is reported and not watched any further. On the thread of CheckNow.
    void WatchRest();
    /// Whether nothing is left to WatchRest.
    [[nodiscard]] bool IsWatchingAll() const { return m_refused.empty(); }

    [[nodiscard]] const std::vector<ZOLVconfMonitor>& Items() const { return *m_monitorList; }
    /// How the item at this position stands. On the thread of CheckNow.
    [[nodiscard]] EState StateOf(std::size_t position) const { return m_states[position]; }
    /// Position of the first item with this one's key.
    [[nodiscard]] std::size_t JudgedBy(std::size_t position) const {
        return *m_FindFirst(Items()[position].key);
    }

    /// Posts NOTIFY_ZOL_VCONF to the notify manager. A full queue is logged and the event lost; the queued
    /// hits go out with the next one.
    void Notify();

    /// Does nothing; true.
    bool t_OnEvent(const CSEvent* event) override;

private:
    static void m_KeyChangedCb(keynode_t* node, void* userData);

    /// An item whose key could not be read.
    struct Unread {
        std::size_t position;
        bool isString;
        KeyWatch watch;  ///< goes when the item holds; none after a change: that one goes on being watched
    };

    /// Position of the first item with this key; none when there is no such item.
    [[nodiscard]] std::optional<std::size_t> m_FindFirst(std::string_view key) const;
    bool m_Check(const keynode_t* node);
    bool m_CheckItem(const ZOLVconfMonitor& item, bool isString);
    bool m_CheckIntType(const std::string& key, int greater, int less, int& out);
    bool m_CheckIntType(const std::string& key, const std::string& condition, int value, int& out);
    bool m_CheckStringType(const std::string& key, const std::string& condition, const std::string& strValue,
                           std::string& out);
    static int m_GetCondition(const std::string& word);
    static int m_GetValueType(const std::string& word);
    /// Reports an item that holds, watches another one. False when another attempt may do better: nothing can
    /// be done about a name that no key may have.
    [[nodiscard]] bool m_CheckOrWatch(std::size_t position);
    /// Of an item; false with errno when vconf refuses.
    [[nodiscard]] KeyWatch m_Watch(const std::string& key);
    void m_ReadLater(std::size_t position, bool isString, KeyWatch watch);
    void m_ReadAgain();
    /// A change of its key supersedes the read that is due.
    void m_DropUnread(std::size_t position);
    void m_NotifyPending();
    void m_AddNotify(ZOLVconfMonitor item, int value, std::string text);

    TCNotifyManager* const m_pNotify;
    const SharedVconfItems m_monitorList;
    std::vector<std::uint32_t> m_byKey;  ///< positions in m_monitorList, by key, those of one key in order
    std::atomic<bool> m_bNotifyPending{false};
    /// Of the items. One that is WATCHED is registered, and has no object of its own for it: most are.
    std::vector<EState> m_states;
    std::vector<std::size_t> m_refused;  ///< positions of items whose keys vconf would not watch
    bool m_isUnreadable = false;         ///< the last read failed, and not for want of the key
    base::Backoff m_backoff;
    std::vector<Unread> m_unread;
    base::GSourcePtr m_retry;
};

}  // namespace zol
