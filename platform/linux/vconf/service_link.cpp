#include "vconf/service_link.h"

#include <sys/socket.h>

#include <cerrno>

#include "platform_clock.h"
#include "vconf/service_socket.h"

namespace keystore {
namespace {

constexpr std::uint64_t kPauseNs = 1000000000;
// A service that is killed may be connected to while it ends, and so may the next one. One that keeps its
// clients waiting gets two attempts.
constexpr int kMaxAttempts = 8;
constexpr int kAttemptsAtLeast = 2;
constexpr std::uint64_t kMoreAttemptsNs = 1000000000;
constexpr std::uint64_t kRetryUs = 10000;

}  // namespace

bool ServiceLink::Call(const Message& request, Message* answer) {
    const std::string frame = Pack(request);
    const std::lock_guard<std::mutex> lock(m_mutex);
    errno = EIO;
    // A service that has ended since the last call is connected to anew; all requests may be made again.
    const std::uint64_t end = platform_clock_steady_ns() + kMoreAttemptsNs;
    for (int attempt = 0; attempt < kMaxAttempts && platform_clock_steady_ns() >= m_silentUntil; ++attempt) {
        if (attempt >= kAttemptsAtLeast && platform_clock_steady_ns() >= end) {
            break;
        }
        if (!m_socket) {
            m_socket = ConnectToService();
        }
        if (!m_socket) {
            break;
        }
        const Transfer transfer = Exchange(frame, answer);
        if (transfer == Transfer::Done) {
            errno = answer->error;
            return answer->error == 0;
        }
        m_socket.Reset();
        if (transfer == Transfer::WouldBlock) {
            m_silentUntil = platform_clock_steady_ns() + kPauseNs;
        } else if (attempt > 0) {
            platform_sleep_us(kRetryUs);
        }
    }
    errno = errno == EACCES ? EACCES : EIO;
    return false;
}

Transfer ServiceLink::Exchange(const std::string& frame, Message* answer) {
    const Transfer sent = SendFrame(m_socket.Get(), frame);
    if (sent == Transfer::WouldBlock) {
        return sent;
    }
    // Who is refused finds the reason in the socket, also when it was too late to send. Else there is nothing
    // to wait for: the request is not on its way.
    const bool isSent = sent == Transfer::Done;
    const Transfer received = m_receiver.Receive(m_socket.Get(), answer, isSent ? 0 : MSG_DONTWAIT);
    const bool isAnswer = received != Transfer::Done || answer->operation == Operation::Answer;
    return isAnswer && (isSent || received != Transfer::WouldBlock) ? received : Transfer::Broken;
}

}  // namespace keystore
