#pragma once
/// The message between tasks.
#include <cstdint>
#include <type_traits>

class CCHandler;
class CCSemaphore;

/// Copied by value into the receiver's queue: the sender may build it on its stack and forget it.
struct CSEvent {
    CCSemaphore* sem = nullptr;     ///< given once the event has been handled; CCTask::Send sets it
    CCHandler* receiver = nullptr;  ///< who gets the event; required
    std::uint32_t reserved = 0;
    std::uint32_t type = 0;  ///< event code; the receiver's class owns the codes
    bool isTimer = false;    ///< set by the runtime for timer events
    /// What it means is up to the event code. The pointer lies in the place of l[0]. Aligned to 8 because an
    /// event has 32 bytes on the device, where four bytes would be enough for the longs.
    union alignas(8) UParam {
        long l[2];  ///< 32 bits each on the device
        void* p;    ///< not owned
    } param = {{0, 0}};
};

static_assert(sizeof(void*) != 4 || sizeof(CSEvent) == 32, "the size of a queue's slot on the device");
static_assert(std::is_trivially_copyable<CSEvent>::value, "the queue copies events as bytes");
static_assert(sizeof(void*) <= sizeof(CSEvent::UParam), "a pointer is a parameter");
