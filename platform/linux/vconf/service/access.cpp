#include "vconf/service/access.h"

#include <grp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <vector>

namespace keystore {
namespace {

constexpr const char* kGroup = "zol";
constexpr std::size_t kMaxGroups = 65536;  // the kernel's own limit

bool IsAmongGroups(int socket, gid_t group) {
    std::vector<gid_t> groups(kMaxGroups);
    socklen_t size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
        return false;
    }
    groups.resize(size / sizeof(gid_t));
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

}  // namespace

std::optional<gid_t> StoreGroup() {
    std::array<char, 4096> buffer;
    group entry{};
    group* found = nullptr;
    getgrnam_r(kGroup, &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? std::optional<gid_t>(found->gr_gid) : std::nullopt;
}

Peer PeerOf(int socket, const std::optional<gid_t>& group) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return {static_cast<uid_t>(-1), false};
    }
    const bool isOwn = credentials.uid == 0 || credentials.uid == geteuid();
    return {credentials.uid,
            isOwn || (group && (credentials.gid == *group || IsAmongGroups(socket, *group)))};
}

}  // namespace keystore
