#include <algorithm>
#include <cstring>
#include <new>

#include "Logging.h"
#include "Record.h"
#include "Semaphore.h"
#include "TaskRecord.h"
#include "Time.h"

namespace {

constexpr const char* kSource = "core/src/Task";
constexpr std::uint32_t kNoTimeout = 4294967295U;
constexpr std::uint64_t kNsPerMs = 1000000;
constexpr std::uint64_t kIdlePauseNs = 10 * kNsPerMs;
constexpr std::uint64_t kFullQueueRetryUs = 1000;

/// The semaphores of one ping: the task gives the first, the caller the second when it has stopped waiting.
struct PingPair {
    CCSemaphore answered;
    CCSemaphore left;

    PingPair() = default;
    ~PingPair() {
        for (CCSemaphore* semaphore : {&answered, &left}) {
            if (semaphore->FlagCreate()) {
                semaphore->Destroy();
            }
        }
    }
    PingPair(const PingPair&) = delete;
    PingPair& operator=(const PingPair&) = delete;

    bool Create() { return answered.Create(0) && left.Create(0); }
};

/// Answers a ping and releases it.
void AnswerPing(const CSEvent& event) {
    const std::unique_ptr<PingPair> pair(static_cast<PingPair*>(event.param.p));
    pair->answered.Give();
    pair->left.Take();
}

bool IsForHandler(const void* element, const void* handler) {
    return static_cast<const CSEvent*>(element)->receiver == handler;
}

/// Gives the semaphore of a synchronous event.
bool ReleaseSender(const void* element, const void* /*context*/) {
    CCSemaphore* const sem = static_cast<const CSEvent*>(element)->sem;
    return sem != nullptr && sem->Give();
}

}  // namespace

bool CCTask::TSTask::CInternalHandler::Create(CCTask* task, TSTask* record) {
    if (!AssertAtsc3(m == nullptr, "!m", kSource, 85)) {
        return false;
    }
    m_owner = task;
    m = record;
    return CCHandler::Create(task);
}

void CCTask::TSTask::CInternalHandler::Destroy() {
    if (AssertAtsc3(m != nullptr, "m", kSource, 93)) {
        m_owner->m_DropEvents(m);
        m = nullptr;
    }
}

bool CCTask::TSTask::CInternalHandler::t_OnEvent(const CSEvent* event) {
    switch (event->type) {
        case EVENT_EXIT:
            m_owner->m_HandleExit(event);
            return true;
        case EVENT_PING:
            AnswerPing(*event);
            return true;
        default:
            return false;
    }
}

CCTask::CCTask() = default;
CCTask::~CCTask() = default;

bool CCTask::Create(const char* name, unsigned long stackSize) {
    if (!AssertAtsc3(!FlagCreate(), "!m", kSource, 261) ||
        !AssertAtsc3(name != nullptr, "name != NULL", kSource, 262)) {
        return false;
    }
    m_running = false;
    std::shared_ptr<TSTask> record = MakeRecord<TSTask>();
    if (record == nullptr || record->alarm == nullptr) {
        return false;
    }
    std::copy_n(name, strnlen(name, TSTask::kNameLength), record->name.begin());
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        m = record;
    }
    if (m_Build(name, stackSize)) {
        return true;
    }
    const std::lock_guard<std::mutex> lock(m_lock);
    m.reset();
    return false;
}

bool CCTask::m_Build(const char* name, unsigned long stackSize) {
    if (!_CHECK(CCFixedRingQueue::Create(sizeof(CSEvent), kQueueSlots, true, false),
                "CCFixedRingQueue::Create(sizeof(CSEvent), 256, true, false)", kSource, 268)) {
        return false;
    }
    if (_CHECK(m->handler.Create(this, m.get()), "m->handler.Create(this, m)", kSource, 269)) {
        if (_CHECK(m->timerMutex.Create(), "m->timerMutex.Create()", kSource, 292)) {
            if (_CHECK(CCThread::Create(name, stackSize), "CCThread::Create(name, stackSize)", kSource,
                       293)) {
                return true;
            }
            m->timerMutex.Destroy();
        }
        m->handler.Destroy();
    }
    CCFixedRingQueue::Destroy();
    return false;
}

void CCTask::Destroy() {
    const std::shared_ptr<TSTask> record = m_Record();
    if (!AssertAtsc3(record != nullptr, "m", kSource, 323)) {
        return;
    }
    CCThread::Destroy();
    // A task that destroys itself does not wait for its thread: the loop ends behind the current event.
    record->exit = true;
    record->handler.Destroy();
    const std::lock_guard<std::mutex> lock(m_lock);
    CCFixedRingQueue::Destroy();
    m.reset();
}

void CCTask::m_DropEvents(TSTask* record) {
    const std::lock_guard<std::mutex> lock(m_lock);
    record->ended = true;
    // Under the same lock as the rest: a ping that was queued behind it would never be released.
    CCHandler* const internal = &record->handler;
    internal->m_task = nullptr;
    CSEvent event;
    while (Get(&event, 0)) {
        if (event.receiver == internal && event.type == TSTask::CInternalHandler::EVENT_PING) {
            AnswerPing(event);
        }
        ReleaseSender(&event, nullptr);
    }
}

std::shared_ptr<CCTask::TSTask> CCTask::m_Record() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m;
}

void CCTask::ThreadBody() {
    // Held to the end: where a task destroys itself, `m` goes before the loop does.
    const std::shared_ptr<TSTask> record = m;
    m_loopThread = SelfId();
    t_Main();
    m_ReleaseSenders(record.get());
    m_loopThread = 0;
}

void CCTask::t_Main() {
    const std::shared_ptr<TSTask> record = m;
    if (!t_OnStart()) {
        return;
    }
    m_running = true;
    while (!record->exit) {
        record->tookEvent = false;
        const auto wait = static_cast<std::uint32_t>(t_InsertTimerEvent());
        if (!t_ExecuteEvent(wait)) {
            break;
        }
        if (!record->tookEvent && !record->exit) {
            m_Pause(record.get());
        }
    }
    m_running = false;
    t_OnStop();
}

void CCTask::m_Pause(TSTask* record) {
    const std::uint64_t now = CCTime::CurrentUtc();
    std::uint64_t pause = kIdlePauseNs;
    if (record->nextDue <= (now + kIdlePauseNs) / kNsPerMs) {
        const std::uint64_t due = record->nextDue * kNsPerMs;
        if (due <= now) {
            return;
        }
        pause = due - now;
    }
    platform_alarm_wait(record->alarm.get(), pause);
}

bool CCTask::m_TakeEvent(CSEvent* event, unsigned long timeout) {
    if (timeout > 0) {
        // Waits here because the queue's own timeout is an int, which such a wait may exceed.
        if (!CCSemaphore::Try(timeout)) {
            return false;
        }
        CCSemaphore::Give();
    }
    return Get(event, 0);
}

bool CCTask::t_ExecuteEvent(unsigned long timeout) {
    const std::shared_ptr<TSTask> record = m;
    CSEvent event;
    if (timeout == kNoTimeout) {
        if (!m_TakeEvent(&event, static_cast<std::uint32_t>(record->defaultTimeout))) {
            t_OnIdle();
            return true;
        }
    } else if (!m_TakeEvent(&event, timeout)) {
        return true;
    }
    record->tookEvent = true;
    if (!event.receiver->FlagCreate()) {
        return true;
    }
    if (event.isTimer) {
        t_HandleTimerEvent(&event);
    } else {
        event.receiver->t_OnEvent(&event);
    }
    if (event.sem != nullptr) {
        event.sem->Give();
    }
    return true;
}

bool CCTask::t_OnStart() {
    return true;
}
void CCTask::t_OnIdle() {}
void CCTask::t_OnStop() {}
bool CCTask::OnExit(const CSEvent* /*event*/) {
    return true;
}

bool CCTask::Send(CSEvent* event, bool sync) {
    if (!AssertAtsc3(event != nullptr, "event != NULL", kSource, 364) ||
        !AssertAtsc3(event->receiver != nullptr, "event->receiver != NULL", kSource, 365)) {
        return false;
    }
    CCTask* task = event->receiver->m_task.load(std::memory_order_acquire);
    if (task == nullptr) {
        return false;
    }
    if (!sync) {
        return task->m_Post(*event, false);
    }
    if (task->m_loopThread == SelfId()) {
        event->receiver->t_OnEvent(event);
        return true;
    }
    CCSemaphore handled;
    if (!handled.Create(0)) {
        return false;
    }
    event->sem = &handled;
    const bool added = task->m_Post(*event, true);
    if (added) {
        handled.Take();
    }
    event->sem = nullptr;
    handled.Destroy();
    return added;
}

bool CCTask::m_Post(const CSEvent& event, bool sync) {
    const std::lock_guard<std::mutex> lock(m_lock);
    if (m == nullptr || (sync && m->ended) || event.receiver->m_task != this || !Add(&event)) {
        return false;
    }
    platform_alarm_ring(m->alarm.get());
    return true;
}

void CCTask::m_Unbind(CCHandler* handler) {
    const std::lock_guard<std::mutex> lock(m_lock);
    handler->m_task = nullptr;
    if (m != nullptr) {
        RemoveIf(&IsForHandler, handler);
    }
}

void CCTask::m_ReleaseSenders(TSTask* record) {
    const std::lock_guard<std::mutex> lock(m_lock);
    record->ended = true;
    if (m != nullptr) {
        RemoveIf(&ReleaseSender, nullptr);
    }
}

bool CCTask::ExitLoop() {
    const std::shared_ptr<TSTask> record = m_Record();
    if (!AssertAtsc3(record != nullptr, "m", kSource, 576)) {
        return true;
    }
    CSEvent event;
    event.receiver = &record->handler;
    event.type = TSTask::CInternalHandler::EVENT_EXIT;
    // A full queue empties as the loop goes on: were the event given up, Destroy would wait for ever.
    while (!Send(&event, true) && m_Loops(*record)) {
        platform_sleep_us(kFullQueueRetryUs);
    }
    return true;
}

bool CCTask::m_Loops(const TSTask& record) const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m != nullptr && !record.ended;
}

void CCTask::m_HandleExit(const CSEvent* event) {
    const std::shared_ptr<TSTask> record = m;
    TFCallback before = nullptr;
    TFCallback after = nullptr;
    const void* data = nullptr;
    GetEventCallback(CALLBACK_EXIT, &before, &after, &data);
    if (before != nullptr && !before(event, data)) {
        _PRINT(LOG_TYPE_E, "Before callback for CALLBACK_EXIT failed");
    }
    if (!OnExit(event)) {
        _PRINT(LOG_TYPE_E, "CCTask::OnExit failed");
    }
    if (after != nullptr && !after(event, data)) {
        _PRINT(LOG_TYPE_E, "After callback for CALLBACK_EXIT failed");
    }
    record->exit = true;
}

bool CCTask::Ping(CCTask* task, unsigned long ms) {
    return AssertAtsc3(task != nullptr, "task", kSource, 531) && task->Ping(ms);
}

bool CCTask::Ping(unsigned long ms) {
    const std::shared_ptr<TSTask> record = m_Record();
    if (!AssertAtsc3(record != nullptr, "m", kSource, 539)) {
        return false;
    }
    std::unique_ptr<PingPair> pair(new (std::nothrow) PingPair);
    if (pair == nullptr || !pair->Create()) {
        return false;
    }
    CSEvent event;
    event.receiver = &record->handler;
    event.type = TSTask::CInternalHandler::EVENT_PING;
    event.param.p = pair.get();
    if (!Send(&event, false)) {
        return false;
    }
    // The task owns the pair now and releases it once it has got `left`.
    PingPair* const sent = pair.release();
    const bool answered = sent->answered.Try(ms);
    sent->left.Give();
    return answered;
}

unsigned long CCTask::Id() const {
    return AssertAtsc3(FlagCreate(), "m", kSource, 405) ? CCThread::Id() : 0;
}

const char* CCTask::Name() const {
    const std::shared_ptr<TSTask> record = m_Record();
    return AssertAtsc3(record != nullptr, "m", kSource, 397) ? record->name.data() : nullptr;
}

bool CCTask::SetEventCallback(ECallbackType type, TFCallback before, TFCallback after, const void* data) {
    if (!AssertAtsc3(FlagCreate(), "m", kSource, 439) || type != CALLBACK_EXIT) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(m_lock);
    m->before = before;
    m->after = after;
    m->data = data;
    return true;
}

bool CCTask::GetEventCallback(ECallbackType type, TFCallback* before, TFCallback* after,
                              const void** data) const {
    if (!AssertAtsc3(FlagCreate(), "m", kSource, 484) || type != CALLBACK_EXIT) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(m_lock);
    if (before != nullptr) {
        *before = m->before;
    }
    if (after != nullptr) {
        *after = m->after;
    }
    if (data != nullptr) {
        *data = m->data;
    }
    return true;
}
