#pragma once
/// Names that the key store's clients and its service agree on.

namespace keystore {

constexpr const char* kServiceName = "zol_vconfd";
constexpr const char* kDetachOption = "--detach";  ///< returns when it listens, and goes on in the background
constexpr const char* kSocketName = "vconf.sock";  ///< in ZOL_PATH_RUN_DIR
constexpr const char* kMemoryPrefix = "memory/";   ///< of the keys that last until power-off

}  // namespace keystore
