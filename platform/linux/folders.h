#pragma once
#include <string>

namespace platform {

/// Makes one folder for its owner to write and everybody to enter, or finds it there. False with errno.
bool MakeFolder(const std::string& path);

/// Makes the folders above the last name of an absolute path. False with errno.
bool MakeParentFolders(const std::string& path);

}  // namespace platform
