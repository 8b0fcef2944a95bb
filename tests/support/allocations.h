#pragma once
/// Counts heap allocations.

/// Calls of malloc and its relatives, operator new included, by the calling thread since it began.
unsigned long ThreadAllocations();
/// Blocks that the calling thread has allocated and not freed; those it freed for others count against it.
long ThreadBlocksInUse();
