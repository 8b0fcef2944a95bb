#pragma once
/// The web-app service, installing what the test says.
#include <string>
#include <vector>

#include "was.h"

namespace fakes {
namespace was {

/// Reports an event of an application to everybody who registered its id, on the calling thread. One delivery
/// at a time; a withdrawal waits for it. Returns how many were told.
int Install(const std::string& id, was_notify_event_e event = WAS_NOTIFY_INSTALL_COMPLETED);

/// Makes later registrations of this id fail with this result; 0: they succeed. Ids that could leave the
/// applications folders are always refused.
void FailRegistrations(const std::string& id, int result);
/// The ids of the registrations that have not been withdrawn, in the order they were made.
std::vector<std::string> RegisteredIds();

}  // namespace was
}  // namespace fakes
