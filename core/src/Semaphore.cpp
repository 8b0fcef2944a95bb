#include "Semaphore.h"

#include <semaphore.h>

#include <cerrno>
#include <memory>
#include <new>

#include "platform_clock.h"

namespace {
constexpr const char* kSource = "core/src/Semaphore";
}  // namespace

struct CCSemaphore::TSSemaphore {
    sem_t semaphore{};
};

bool CCSemaphore::Create(std::uint32_t value) {
    AssertExit(m == nullptr, "!m", kSource, 15);
    std::unique_ptr<TSSemaphore> record(new (std::nothrow) TSSemaphore);
    if (record == nullptr || sem_init(&record->semaphore, 0, value) != 0) {
        return false;
    }
    m = record.release();
    return true;
}

void CCSemaphore::Destroy() {
    AssertExit(m != nullptr, "m", kSource, 35);
    sem_destroy(&m->semaphore);
    delete m;
    m = nullptr;
}

bool CCSemaphore::Take() {
    AssertExit(m != nullptr, "m", kSource, 45);
    while (sem_wait(&m->semaphore) != 0 && errno == EINTR) {
    }
    return true;
}

bool CCSemaphore::Give() {
    AssertExit(m != nullptr, "m", kSource, 54);
    // The taker may destroy the semaphore at once: nothing may be touched behind this call.
    sem_post(&m->semaphore);
    return true;
}

bool CCSemaphore::Try(unsigned long milliseconds) {
    AssertExit(m != nullptr, "m", kSource, 63);
    platform_time_t deadline{};
    platform_clock_realtime(&deadline);
    deadline.seconds += static_cast<std::int64_t>(milliseconds / 1000);
    deadline.nanoseconds += static_cast<std::int64_t>(milliseconds % 1000) * 1000000;
    return platform_sem_wait_until(&m->semaphore, &deadline) == 0;
}
