#pragma once
#include <sys/types.h>

#include <optional>

namespace keystore {

/// The group whose members may use the store; none where there is no such group.
[[nodiscard]] std::optional<gid_t> StoreGroup();

struct Peer {
    uid_t account = 0;
    bool isAllowed = false;  ///< root, this service's own account, and members of the group
};

/// Who is at the other end of a connection, as it was when it connected.
[[nodiscard]] Peer PeerOf(int socket, const std::optional<gid_t>& group);

}  // namespace keystore
