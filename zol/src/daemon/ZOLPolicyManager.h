#pragma once
/// Stores the policy, applies it at every start and at every update, and owns the tasks that watch it.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ZOLPolicy.h"
#include "ZOLScheduler.h"
#include "base/backoff.h"
#include "base/glib_handles.h"

namespace zol {

class IDbusServer;
class TCCVLogger;
class TCPolicyTasks;
class TCShiftedClock;

/// Built once, on the main thread; construction applies the stored policy. UpdatePolicy and the operations
/// on the stored policy are for one thread at a time (the one that dispatches calls); RemovePolicy,
/// PreparePowerOn and NotifyPowerOff may run on any thread beside it.
///
/// Failures are logged and come back as false. Whether monitoring runs is kept in the flag kMonitoringRuns:
/// while it is true, an update is stored but waits for the next start. What this process last meant to write
/// there holds for it while the write has failed or the key cannot be read.
///
/// A write of the flag that failed and a policy that could not be watched whole are tried again on the
/// default main context, with base::Backoff between; the policy until another one is applied.
class TCPolicyManager {
public:
    /// @param clock  not owned; must outlive this object
    /// @param server asked to send the power-off notification; not owned, may be null
    /// @param logger asked for the volume level whenever the stored policy is applied; not owned, may be null
    TCPolicyManager(TCShiftedClock& clock, IDbusServer* server, TCCVLogger* logger);
    /// Ends the scheduler, then every task made for a policy; hits that were found before are still reported,
    /// for five seconds at most. On the main thread.
    ~TCPolicyManager();
    TCPolicyManager(const TCPolicyManager&) = delete;
    TCPolicyManager& operator=(const TCPolicyManager&) = delete;

    /// Takes a new policy: stores it and, unless monitoring runs or eight sets of tasks do, applies it. One
    /// without vconf items only clears the running flag. A refused policy leaves the stored one as it was.
    /// @return whether the policy was accepted
    [[nodiscard]] bool UpdatePolicy(const std::string& xml);

    /// What became of a policy that was handed over.
    enum class EOutcome {
        REFUSED,
        STORED,   ///< another one runs, this one is applied at the next start
        NOTHING,  ///< none of its items is watched
        RUNNING   ///< applied; what could not be watched yet is tried again
    };
    /// Of the last UpdatePolicy.
    [[nodiscard]] EOutcome LastOutcome() const { return m_outcome; }

    // How things stand; on the thread that dispatches calls.
    /// Whether the flag of monitoring was last meant to be set.
    [[nodiscard]] bool IsMonitoring() const { return m_meantRunning.value_or(false); }
    /// The sets of tasks, the one applied last at the end. A policy without anything to watch leaves none.
    [[nodiscard]] const std::vector<std::unique_ptr<TCPolicyTasks>>& Sets() const { return m_tasks; }
    /// DigestOf the document that the last set watches; empty when none does.
    [[nodiscard]] const std::string& RunningDigest() const { return m_runningDigest; }
    /// Items of the policy applied last that are not fit to be watched.
    [[nodiscard]] std::uint32_t Dropped() const { return m_dropped; }
    /// Called on the thread that dispatches calls, or on the main thread, when any of that may have changed.
    void SetChangeListener(std::function<void()> listener) { m_changed = std::move(listener); }

    /// Reads and parses the stored policy into `policy`, which should be freshly initialised. False when
    /// there is none, when it is no regular file, cannot be read, is longer than kMaxPolicyBytes, or is
    /// malformed.
    [[nodiscard]] bool LoadPolicy(ZOLPolicy& policy);

    /// Applies the stored policy: schedule, item lists and, unless monitoring runs, tasks. One that cannot be
    /// read now, but perhaps later, is tried again.
    void ReloadSchedule();

    [[nodiscard]] bool IsPolicyExists();
    /// Logs when there is a stored policy; changes nothing.
    void RemoveExpiredPolicy();
    /// What happens at expiry: a line in the log. File, tasks and flag stay.
    void RemovePolicy();
    TCScheduler& GetScheduler();

    /// With `check`, takes the mark of an earlier preparation off; without, sets it.
    void PreparePowerOn(bool check);
    /// Tells the IPC clients that power goes off and waits for their answers without limit.
    /// @return whether anybody answered
    bool NotifyPowerOff();

private:
    /// @param mayDoBetterLater set when it failed for want of a descriptor or memory, or the file could not
    /// be read
    /// @param digest of what was parsed; null: nobody asks, and a long document takes milliseconds
    [[nodiscard]] static bool m_Load(ZOLPolicy& policy, bool& mayDoBetterLater, std::string* digest);
    [[nodiscard]] bool m_Update(const std::string& xml);
    void m_TellChange();
    void m_ReadAgain();
    void m_ApplyStored(ZOLPolicy policy, const std::string& digest);
    [[nodiscard]] static bool m_Store(const std::string& xml);
    void m_UpdateScheduler(const ZOLPolicy& policy, bool isNewPolicy);
    /// @return whether there is anything to watch
    bool m_CreatePolicyThread(int start);
    /// Sets of which at least one task runs.
    [[nodiscard]] std::size_t m_CountSets() const;
    void m_WatchPolicy();
    void m_StartTasks();
    /// Keeps the valid items in the storage. @return how many there are
    static unsigned m_RemoveInvalidVconfPolicy(std::vector<ZOLVconfMonitor> items);
    static unsigned m_RemoveInvalidMonitorPolicy(std::vector<ZOLPolicyMonitor> items);
    [[nodiscard]] static bool m_CheckThisVconfPolicy(const ZOLVconfMonitor& item);
    [[nodiscard]] static bool m_CheckThisMonitorPolicy(const ZOLPolicyMonitor& item);
    static std::int32_t m_GetCondition(const std::string& word);
    static std::int32_t m_GetValueType(const std::string& word);
    [[nodiscard]] bool m_GetCorvelPolicy() const;
    void m_SetCorvelPolicy(bool isRunning);
    void m_RetryLater();
    void m_Retry();
    void m_LogCurrentPolicy();

    // The scheduler goes first, so that no expiry finds a manager half gone, then the tasks.
    IDbusServer* const m_server;
    std::vector<std::unique_ptr<TCPolicyTasks>> m_tasks;  ///< one set per policy applied
    TCScheduler m_scheduler;
    TCCVLogger* const m_logger;
    EOutcome m_outcome = EOutcome::REFUSED;
    std::string m_runningDigest;
    std::uint32_t m_dropped = 0;
    std::function<void()> m_changed;
    std::optional<bool> m_meantRunning;  ///< what the flag was last meant to be
    bool m_isFlagUnwritten = false;      ///< the store holds something else
    bool m_isReloadDue = false;          ///< the stored policy could not be read, and none was applied since
    bool m_isSetUnfinished = false;      ///< the last set of tasks does not watch all of its policy
    bool m_isFlagWaiting = false;        ///< for all tasks of the last set to run
    base::Backoff m_backoff;
    base::GSourcePtr m_retry;
};

}  // namespace zol
