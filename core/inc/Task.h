#pragma once
/// A thread with a queue of events and a list of timers.
#include <atomic>
#include <cstdint>
#include <memory>

#include "Event.h"
#include "FixedRingQueue.h"
#include "Thread.h"

class CCHandler;

/// Events are handed to their receivers one after another on the task's own thread, between them the timers
/// that are due. Tasks talk to each other through Send only.
///
/// A worker derives publicly from CCTask and CCHandler and overrides t_OnEvent. It is set up with
/// CCTask::Create and then CCHandler::Create(this), and taken down with CCHandler::Destroy, ExitLoop and
/// CCTask::Destroy, in this order.
///
/// What a handler throws is one line in the runtime log; its event counts as handled and the loop goes on.
///
/// An idle loop sleeps until an event is sent, a timer is set or the wall clock, which may be set meanwhile,
/// reaches the next due time. Nothing else wakes it. On a clock that was never set, in the first fifty days
/// of 1970, only an event or a due time does: a timer that another thread sets counts from the next one on.
///
/// Any thread may Send, Ping and set or kill timers. Create and Destroy are called by one thread. Operations
/// outside of Create and Destroy assert and return false or 0 where the assertion returns.
class CCTask : protected CCThread, public CCFixedRingQueue {
public:
    enum ECallbackType : int {
        CALLBACK_EXIT = 0  ///< around the handling of ExitLoop, on the task's thread
    };
    /// Returning false is logged and changes nothing else.
    using TFCallback = bool (*)(const CSEvent* event, const void* data);

    /// Slots of the event queue; one of them always stays free.
    static constexpr unsigned kQueueSlots = 256;

    /// Starts the task.
    /// @param name      kept up to 16 characters; not null
    /// @param stackSize bytes asked for; see CCThread::kStackFloor
    /// False when something could not be created; that is logged and everything is undone.
    [[nodiscard]] bool Create(const char* name, unsigned long stackSize);
    bool FlagCreate() const { return m_Record() != nullptr; }
    /// Waits for the thread to end, so ExitLoop must have been called, and releases everything. Events still
    /// queued are dropped.
    void Destroy() override;

    /// Hands a copy of `event` to its receiver's task; neither the event nor its receiver may be null.
    /// Asynchronously: false when the receiver is unbound, its task not running, or the queue full (255
    /// events). Synchronously: returns when the event has been handled; called on the receiver's own thread
    /// it runs the handler right away. When the loop ends meanwhile the sender is released with true; a loop
    /// that has ended takes no more synchronous events (false). Two tasks that send to each other
    /// synchronously block for ever, and so does the sender of a synchronous event that is dropped because
    /// CCHandler::Destroy unbinds its receiver first.
    [[nodiscard]] static bool Send(CSEvent* event, bool sync);

    /// True when the task has got to this request within `ms` milliseconds (CCSemaphore::Try). From the
    /// task's own thread it cannot.
    [[nodiscard]] bool Ping(unsigned long ms);
    [[nodiscard]] static bool Ping(CCTask* task, unsigned long ms);

    /// POSIX id of the thread; all bits set once it has ended.
    unsigned long Id() const;
    /// The stored name; null where the assertion returned. Valid until Destroy.
    const char* Name() const;

    /// Sets or clears (null) both callbacks. False for any type but CALLBACK_EXIT; nothing changes then.
    [[nodiscard]] bool SetEventCallback(ECallbackType type, TFCallback before, TFCallback after,
                                        const void* data);
    /// Reads them; null outputs are skipped. False for any type but CALLBACK_EXIT.
    [[nodiscard]] bool GetEventCallback(ECallbackType type, TFCallback* before, TFCallback* after,
                                        const void** data) const;

protected:
    friend class CCHandler;

    /// t_OnStart, the loop, t_OnStop. What ThreadBody, the first of the virtual operations, runs.
    void t_Main();

    // The order of the virtual operations is part of the binary interface: those of CCThread, then these.

    /// Posts the event of a due timer. A full queue loses it, and the timer fires no more.
    virtual void t_SendTimerEvent(CCHandler* handler, void* timer);
    /// Takes one event, waiting at most `timeout` milliseconds, and hands it to its receiver. When none comes
    /// within 2^32 - 1 milliseconds it calls t_OnIdle. Always true.
    virtual bool t_ExecuteEvent(unsigned long timeout);
    /// On the task's thread before the loop; false ends the thread without a loop.
    virtual bool t_OnStart();
    /// Nothing came within the longest wait.
    virtual void t_OnIdle();
    /// On the task's thread after the loop.
    virtual void t_OnStop();

public:
    /// Ends the loop after the current event and returns when that is settled; while the queue is full it
    /// waits for room. Always true.
    virtual bool ExitLoop();

protected:
    /// On the task's thread, between the callbacks of CALLBACK_EXIT. False is logged and changes nothing
    /// else.
    virtual bool OnExit(const CSEvent* event);

    /// Posts an event for every timer that is due. Returns how many milliseconds t_ExecuteEvent may wait: 0
    /// whenever the wall clock is later than 49.7 days after the beginning of 1970.
    std::uint64_t t_InsertTimerEvent();
    /// Hands a timer event to its receiver, unless the timer has been killed meanwhile.
    void t_HandleTimerEvent(const CSEvent* event);
    [[nodiscard]] bool t_SetTimer(CCHandler* handler, unsigned long id, unsigned long ms);
    [[nodiscard]] bool t_KillTimer(CCHandler* handler, unsigned long id);

private:
    struct TSTask;
    struct TSTimer;

    void ThreadBody() override;
    std::shared_ptr<TSTask> m_Record() const;
    bool m_Build(const char* name, unsigned long stackSize);
    bool m_Post(const CSEvent& event, bool sync);
    void m_Unbind(CCHandler* handler);
    bool m_Loops(const TSTask& record) const;
    void m_Pause(TSTask* record);
    void m_HandleExit(const CSEvent* event);
    void m_DropEvents(TSTask* record);

    // Changes under the queue's m_lock, which also guards the life of the queue and the binding of handlers;
    // the loop reads it without.
    std::shared_ptr<TSTask> m;
    std::atomic<unsigned long> m_loopThread{0};  // POSIX id while the thread is in its body, else 0
};
