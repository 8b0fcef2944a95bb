#pragma once
#include <cstddef>

/// How often the calling thread has allocated with `new` so far.
std::size_t AllocationCount();
