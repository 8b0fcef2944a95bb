#pragma once
/// Replacing a file whole.
#include <sys/types.h>

#include <string>
#include <string_view>

namespace maker {

/// Replaces a file by new content so that a power cut, a full disk or a crash leaves either the old file or
/// the new one. A link in the file's place is replaced, not followed. False, with one line in the platform
/// log, when it fails.
bool WriteWholeFile(const std::string& devicePath, std::string_view content, mode_t mode);

}  // namespace maker
