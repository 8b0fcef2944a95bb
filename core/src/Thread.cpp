#include "Thread.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "Logging.h"
#include "OwnedSemaphore.h"
#include "Record.h"

namespace {

constexpr const char* kSource = "core/src/Thread";
constexpr std::size_t kNameLength = 16;
constexpr unsigned long kEnded = static_cast<unsigned long>(-1);
constexpr pid_t kNotStarted = -1;

pid_t KernelId() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

bool SetNice(pid_t kernelId, CCThread::EPriorityType priority) {
    const int nice = priority >= CCThread::PRIORITY_HIGH && priority <= CCThread::PRIORITY_LOW
                         ? 10 * static_cast<int>(priority) - 10
                         : 0;
    return setpriority(PRIO_PROCESS, static_cast<id_t>(kernelId), nice) == 0;
}

}  // namespace

struct CCThread::TSThread {
    CCOwnedSemaphore start;  // given when Create has finished
    CCOwnedSemaphore end;    // given when the body has returned
    std::atomic<unsigned long> id{kEnded};
    CCOwnedSemaphore kernelIdKnown;
    std::atomic<pid_t> kernelId{kNotStarted};
    char name[kNameLength + 1] = {};
    std::atomic<EPriorityType> priority{PRIORITY_NORMAL};
    std::uint32_t stackSize = 0;

    bool CreateSemaphores() { return start.Create(0) && end.Create(0) && kernelIdKnown.Create(0); }
};

namespace {

/// False when the thread cannot be started with that stack.
bool StartDetached(void* thread, unsigned long stackSize, pthread_t* id) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    const auto entry = [](void* self) -> void* {
        TCThreadRun(self);
        return nullptr;
    };
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const bool started =
        pthread_attr_setstacksize(&attributes, std::max(stackSize, CCThread::kStackFloor)) == 0 &&
        pthread_create(id, &attributes, entry, thread) == 0;
    pthread_attr_destroy(&attributes);
    return started;
}

}  // namespace

CCThread::~CCThread() {
    AssertAtsc3(m == nullptr, "!m", "core/inc/Thread", 30);
}

bool CCThread::Create(const char* name, unsigned long stackSize) {
    if (!AssertAtsc3(m == nullptr, "!m", kSource, 78) ||
        !AssertAtsc3(name != nullptr, "threadName != NULL", kSource, 79)) {
        return false;
    }
    const std::shared_ptr<TSThread> record = MakeRecord<TSThread>();
    if (record == nullptr || !record->CreateSemaphores()) {
        return false;
    }
    record->stackSize = static_cast<std::uint32_t>(stackSize);
    std::memcpy(record->name, name, strnlen(name, kNameLength));
    m = record;
    pthread_t id{};
    if (!StartDetached(this, stackSize, &id)) {
        m.reset();
        return false;
    }
    record->id = static_cast<unsigned long>(id);
    record->start.Give();
    return true;
}

void TCThreadRun(void* thread) {
    static_cast<CCThread*>(thread)->m_ThreadRun();
}

void CCThread::m_ThreadRun() {
    const std::shared_ptr<TSThread> record = m;
    if (!AssertAtsc3(record != nullptr, "m", kSource, 134)) {
        return;
    }
    record->start.Take();
    record->kernelId = KernelId();
    record->kernelIdKnown.Give();
    if (record->name[0] != '\0') {
        prctl(PR_SET_NAME, record->name);
    }
    ThreadBody();
    record->id = kEnded;
    // From here on the object may be gone; the record is ours.
    record->end.Give();
}

void CCThread::Destroy() {
    if (!AssertAtsc3(m != nullptr, "m", kSource, 164)) {
        return;
    }
    if (!AssertAtsc3(m->id != SelfId(), "CCThread::SelfId() != Id()", kSource, 165)) {
        _PRINT(LOG_TYPE_E, "Assert Error : Current Thread can't destroy itself\n");
    } else {
        m->end.Take();
    }
    m.reset();
}

unsigned long CCThread::SelfId() {
    return ThreadId();
}

unsigned long CCThread::StackSize() const {
    return AssertAtsc3(m != nullptr, "m", kSource, 187) ? m->stackSize : 0;
}

unsigned long CCThread::Id() const {
    return AssertAtsc3(m != nullptr, "m", kSource, 195) ? m->id.load() : 0;
}

bool CCThread::SetPriority(EPriorityType priority) {
    if (!AssertAtsc3(m != nullptr, "m", kSource, 208)) {
        return false;
    }
    if (m->kernelId == kNotStarted) {
        m->kernelIdKnown.Take();
        m->kernelIdKnown.Give();  // for others who wait for the same
    }
    if (!SetNice(m->kernelId, priority)) {
        return false;
    }
    m->priority = priority;
    return true;
}

bool CCThread::SetSelfPriority(EPriorityType priority) {
    return SetNice(KernelId(), priority);
}

CCThread::EPriorityType CCThread::Priority() const {
    return AssertAtsc3(m != nullptr, "m", kSource, 278) ? m->priority.load() : PRIORITY_NORMAL;
}
