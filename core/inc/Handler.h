#pragma once
/// A receiver of events.
#include <atomic>

class CCTask;
struct CSEvent;

/// Bound to one task by Create, unbound by Destroy. Its operations run on the task's thread, one at a time,
/// except for a synchronous CCTask::Send from that very thread, which runs t_OnEvent inside.
class CCHandler {
public:
    CCHandler() = default;
    /// Asserts that the handler is unbound.
    virtual ~CCHandler();
    CCHandler(const CCHandler&) = delete;
    CCHandler& operator=(const CCHandler&) = delete;

protected:
    friend class CCTask;
    /// Handles one event. The record is the loop's copy and ends with the call. The result tells whether the
    /// handler knew the event; the loop does not look at it.
    virtual bool t_OnEvent(const CSEvent* event) = 0;
    /// A timer of this handler is due.
    virtual void t_OnTimer(unsigned long id);

public:
    /// Drops the events still queued for this handler and unbinds it; what arrives later is dropped by the
    /// task, and the sender of a synchronous event so dropped is never released. Its timers are not killed;
    /// they stop at their next event. Any thread, but an operation of the handler may just be running on the
    /// task's thread.
    virtual void Destroy();

    /// Binds the handler to `task`, which must outlive the binding. True; false where an assertion returned.
    [[nodiscard]] bool Create(const CCTask* task);
    bool FlagCreate() const { return m_task.load(std::memory_order_acquire) != nullptr; }
    /// The task; asserts that the handler is bound.
    CCTask* Task() const;

    /// Calls t_OnTimer(id) on the task's thread every `ms` milliseconds of the wall clock, above 0, until
    /// KillTimer. For an id that is set already the interval starts anew with `ms`. Any thread.
    /// A timer whose event finds the task's queue full, or this handler unbound, fires no more.
    [[nodiscard]] bool SetTimer(unsigned long id, unsigned long ms);
    /// Ends a timer and drops its events still queued. False when there is no such timer. Any thread; from
    /// another thread than the task's a call of t_OnTimer that has begun may still be running.
    [[nodiscard]] bool KillTimer(unsigned long id);

private:
    std::atomic<CCTask*> m_task{nullptr};
};
