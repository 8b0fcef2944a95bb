#pragma once
#include <cstdint>
#include <mutex>

#include "base/unique_fd.h"
#include "vconf/protocol.h"

namespace keystore {

/// The connection for calls. Opened by the first one, and again when the service has been away. Calls of all
/// threads take turns.
class ServiceLink {
public:
    ServiceLink() = default;
    ServiceLink(const ServiceLink&) = delete;
    ServiceLink& operator=(const ServiceLink&) = delete;

    /// True with the answer to a request that succeeded; else errno is the service's reason, EACCES for a
    /// caller that may not reach it, or EIO when it does not answer. Takes kPatienceMs at most to start the
    /// service and as long to hear from it; when it stayed silent the calls of the next second fail at once.
    [[nodiscard]] bool Call(const Message& request, Message* answer);

private:
    [[nodiscard]] Transfer Exchange(const std::string& frame, Message* answer);

    std::mutex m_mutex;  // guards everything below
    base::UniqueFd m_socket;
    Receiver m_receiver;
    std::uint64_t m_silentUntil = 0;
};

}  // namespace keystore
