#pragma once
/// Counts heap allocations.

/// Calls of malloc and its relatives, operator new included, by the calling thread since it began.
unsigned long ThreadAllocations();
