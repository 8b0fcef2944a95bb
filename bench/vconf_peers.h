#pragma once
#include <optional>

/// For main: runs the peer's process when this one was started as such. @return its exit status
std::optional<int> RunPeer(int argc, char** argv);
