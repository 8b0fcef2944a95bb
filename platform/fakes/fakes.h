#pragma once
/// Fakes of platform/inc. Linking them gives a test a machine of its own: a throw-away device root, a clock
/// that stands still until it is moved, a log that can be read, and a key store in memory. Each fake has its
/// own header; this one resets them all.
#include <chrono>
#include <string>

namespace fakes {

/// How long a fake waits for what must come; reached only when something is broken.
constexpr std::chrono::seconds kPatience(60);

/// A fresh machine: empty temporary root, empty log and store, clock at kEpoch. Call it in a fixture's
/// constructor; threads of an earlier test must be gone.
void Reset();

/// Device paths live below this folder; removed at exit and at the next Reset.
std::string Root();
/// Writes a file of the device, making its folders.
void WriteDeviceFile(const std::string& devicePath, const std::string& content);
/// The content of a file of the device; empty when there is none.
std::string ReadDeviceFile(const std::string& devicePath);
bool DeviceFileExists(const std::string& devicePath);
void MakeDeviceFolder(const std::string& devicePath);

}  // namespace fakes
