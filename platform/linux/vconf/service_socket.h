#pragma once
#include <sys/un.h>

#include "base/folders.h"
#include "base/unique_fd.h"

namespace keystore {

/// Where the service listens: in the open folder ZOL_PATH_RUN_DIR, however long its path is.
[[nodiscard]] sockaddr_un AddressIn(const base::OpenedFolder& runFolder);

/// A socket connected to the service, whose sends and receives end after kPatienceMs. Where no service
/// answers one is started, if the store belongs to this account alone or is still to be made. Owns nothing,
/// with errno, when there is none to talk to; a start that failed is not repeated for a while. Any thread.
[[nodiscard]] base::UniqueFd ConnectToService();

/// Whether a service runs that this process may connect to. Connects to nothing: with a socket that is held
/// for the service that would start it. Any thread.
[[nodiscard]] bool IsServed();

constexpr int kPatienceMs = 2000;

}  // namespace keystore
