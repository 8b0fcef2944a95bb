#pragma once
#include <cerrno>
#include <system_error>

namespace base {

/// errno as it stands.
inline std::error_code LastError() {
    return {errno, std::generic_category()};
}

/// The outcome of a call that sets errno when it fails.
inline std::error_code ErrorUnless(bool succeeded) {
    return succeeded ? std::error_code() : LastError();
}

}  // namespace base
