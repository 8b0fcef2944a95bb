#pragma once
/// Lets memory run out at a chosen moment.
#include <cstddef>

/// The calling thread's `next`th `new` from now on fails; 0: none does.
void FailAllocation(std::size_t next);
