#pragma once
/// Watches the vconf keys of a policy and tells the notify manager when one holds its rule.
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Event.h"
#include "Handler.h"
#include "KeyIndex.h"
#include "Task.h"
#include "ZOLPolicy.h"
#include "vconf.h"

class TCNotifyManager;

namespace zol {

/// Construct, Create, CheckNow once, destroy. It works on the threads that call it: CheckNow on its caller's,
/// the key callback on vconf's; its own task handles nothing. A key change costs the same whatever the number
/// of items.
class TCVconfChecker final : public CCTask, public CCHandler {
public:
    /// @param notify receiver of the hits, not owned, must outlive this object; null: hits are lost
    /// @param items  the policy's items; of several with one key only the first is looked at on a change
    TCVconfChecker(TCNotifyManager* notify, std::vector<ZOLVconfMonitor> items);
    /// Shutdown. Not on the task's own thread.
    ~TCVconfChecker() override;
    TCVconfChecker(const TCVconfChecker&) = delete;
    TCVconfChecker& operator=(const TCVconfChecker&) = delete;

    /// Starts the task. False, and logged, when it cannot; Destroy must not be called then.
    bool Create();
    /// Ends the task. The key callbacks stay registered; Shutdown withdraws them.
    void Destroy() override;
    /// Withdraws every key callback and, when the task runs, Destroy. May be called more than once.
    void Shutdown();

    /// Evaluates every item now. One that holds is reported and not watched any further; for each other one
    /// the change callback is registered. All hits together end in one NOTIFY_ZOL_VCONF event.
    void CheckNow(const std::vector<ZOLVconfMonitor>& items);

    /// Posts NOTIFY_ZOL_VCONF to the notify manager. A full queue is logged and the event lost; the queued
    /// hits go out with the next one.
    void Notify();

    /// Does nothing; true.
    bool t_OnEvent(const CSEvent* event) override;

private:
    static void m_KeyChangedCb(keynode_t* node, void* userData);

    void m_Init();
    bool m_Check(const keynode_t* node);
    bool m_CheckItem(const ZOLVconfMonitor& item, bool isString);
    bool m_CheckIntType(const std::string& key, int greater, int less, int& out);
    bool m_CheckIntType(const std::string& key, const std::string& condition, int value, int& out);
    bool m_CheckStringType(const std::string& key, const std::string& condition, const std::string& strValue,
                           std::string& out);
    int m_GetCondition(const std::string& word);
    int m_GetValueType(const std::string& word);
    void m_Register(const std::string& key);
    void m_AddNotify(ZOLVconfMonitor item, int value, std::string text);

    TCNotifyManager* const m_pNotify;
    const std::vector<ZOLVconfMonitor> m_monitorList;
    TCKeyIndex m_firstItem;  ///< key to its first position in m_monitorList
    std::atomic<bool> m_bNotifyPending{false};
    std::mutex m_mutex;  ///< the maps and m_registeredKeys; never held while calling out
    std::map<std::string, std::int32_t> m_conditionMap;
    std::map<std::string, std::int32_t> m_valueTypeMap;
    std::vector<std::string> m_registeredKeys;  ///< one entry per registration
    bool m_isCreated = false;
};

}  // namespace zol
