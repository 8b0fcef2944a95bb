#pragma once
#include <cstddef>
#include <cstdint>

namespace keystore {

/// What one account may take of the service; root, too. A key counts for the account that has set it last.
constexpr std::int64_t kMaxKeys = 16384;
constexpr std::int64_t kMaxKeyStoreBytes = std::int64_t{8} * 1024 * 1024;  ///< of names and texts
constexpr int kMaxConnections = 64;
constexpr std::size_t kMaxClients = 512;  ///< of all accounts; root gets in beyond it
/// On all its connections; as many changes may wait, since a key's last change is all that waits.
constexpr int kMaxWatches = 16384;

}  // namespace keystore
