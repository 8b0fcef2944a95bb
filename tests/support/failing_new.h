#pragma once
/// Lets memory run out at a chosen moment.
#include <cstddef>

/// The calling thread's `next`th `new` from now on fails; 0: none does.
/// @return how many were left to the one that was set before; 0: it has failed
std::size_t FailAllocation(std::size_t next);
