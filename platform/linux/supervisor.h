#pragma once
#include <cstdint>
#include <string_view>

namespace platform {

/// What systemd's documented protocols ask of a service: some variables and a datagram. Its library would do
/// no more, and loads seven others into each program.

/// Where the sockets begin that were handed over.
constexpr int kFirstHandedSocket = 3;

/// Sends a message such as "READY=1" to who supervises this process. Nothing when nobody does, or on failure:
/// the supervisor waits for it no longer than it wants to. Any thread.
void TellSupervisor(std::string_view message);

/// Microseconds within which the supervisor wants to hear of life; 0 when it does not.
[[nodiscard]] std::uint64_t WatchdogIntervalUs();

/// How many sockets this process was handed. They are close-on-exec from now on, and a child is not told of
/// them. Once, before other threads run.
[[nodiscard]] int TakeHandedSockets();

}  // namespace platform
