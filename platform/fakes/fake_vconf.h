#pragma once
/// The key store in memory.
#include <string>

namespace fakes {
namespace vconf {

/// What another process does: changes the key and delivers the notification on the calling thread.
void SetInt(const std::string& key, int value);
void SetBool(const std::string& key, bool value);
void SetString(const std::string& key, const std::string& value);
void Unset(const std::string& key);
/// Has another process set the key right before it is watched the next time, which no notification tells.
void SetIntBeforeWatched(const std::string& key, int value);

/// Delivers, on the calling thread, the notifications of changes that the code under test made itself.
/// Whether there were any.
bool Deliver();
/// Does so from now on inside every set of the code under test, as a device's store may. For one thread.
void DeliverInsideSets();

/// The stored value; `missing` when there is none of that type.
int GetInt(const std::string& key, int missing = -12345);
std::string GetString(const std::string& key, const std::string& missing = "<missing>");
bool Exists(const std::string& key);

/// Operations on a key that fail from now on; several may be combined.
enum Failure { FAIL_NONE = 0, FAIL_GET = 1, FAIL_SET = 2, FAIL_NOTIFY = 4 };
void Fail(const std::string& key, int failures);

/// Registrations of a key (of all keys when empty) that have not been withdrawn, each counted.
int Registrations(const std::string& key = "");

}  // namespace vconf
}  // namespace fakes
