#pragma once
/// Moving the cursor of a chain, with the assertions that the list and the hash tables share.
#include "IPosition.h"
#include "TSChain.h"

/// Where a container's assertions point, and how they are reported (the report may return).
struct TSCursorChecks {
    void (*report)(const char* expression, const char* source, int line);
    const char* source;
    int headLine;
    int tailLine;
};

/// IPosition::SetPosition on a chain.
template <class Node>
bool MoveCursor(TSChain<Node>& chain, IPosition::EPosState state, long index, const TSCursorChecks& checks) {
    if (chain.size == 0) {
        return false;
    }
    switch (state) {
        case IPosition::POS_HEAD:
            if (index < 0) {
                checks.report("index >= 0", checks.source, checks.headLine);
                return false;
            }
            return chain.MoveFrom(chain.head, index);
        case IPosition::POS_TAIL:
            if (index > 0) {
                checks.report("index <= 0", checks.source, checks.tailLine);
                return false;
            }
            return chain.MoveFrom(chain.tail, index);
        case IPosition::POS_CURRENT:
            return chain.MoveFrom(chain.current, index);
    }
    return true;
}
