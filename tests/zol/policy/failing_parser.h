#pragma once
/// Lets expat find no memory.

/// Whether the calling thread gets no parser from now on.
void FailParsers(bool fail);
