#pragma once
#include <functional>
#include <string>

#include "vconf/protocol.h"

namespace keystore {

/// Hands over the keys of a store that all its users could write to, as earlier versions kept it in `folder`,
/// of which nothing is believed: no link is followed, no journal replayed, only a file's bytes are copied to
/// `copy` (for this account alone, gone afterwards) and read there. What is no key, and what is beyond an
/// account's share, is left out and counted in the log. Does nothing when there is no such store.
/// @param take false when it cannot keep a key
/// @return true when a store was taken over
[[nodiscard]] bool TakeOverOldStore(
    const std::string& folder, const std::string& copy,
    const std::function<bool(const std::string& key, const Value& value)>& take);

/// Puts what was taken over out of the way, for whoever wants it back, if this account may.
void ForgetOldStore(const std::string& folder);

}  // namespace keystore
