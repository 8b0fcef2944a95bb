#pragma once
/// A doubly linked list of pointers with a cursor.
#include "IPosition.h"
#include "TSChain.h"

/// The usual walk is SetPosition(POS_HEAD, 0), then Data() and SetPosition(POS_CURRENT, 1) until that returns
/// false; removing during the walk is allowed. The data are not owned. One thread at a time, or under the
/// owner's lock.
class CCList : public IPosition {
public:
    enum EAddMode {
        ADD_BEFORE = 0,  ///< in front of the current element
        ADD_AFTER = 1    ///< behind the current element
    };

    CCList() = default;
    /// Asserts that its owner has emptied the list.
    ~CCList() override;
    CCList(const CCList&) = delete;
    CCList& operator=(const CCList&) = delete;

    /// Links new data beside the current element and makes it current. Right after Remove it takes the
    /// removed element's place, whatever the mode. False when there is no memory.
    [[nodiscard]] bool Add(void* data, EAddMode mode);

    [[nodiscard]] bool SetPosition(EPosState state, long index) override;

    /// The current element's data; null when nothing is current or the current element has been removed.
    void* Data() const;

    /// Unlinks the current element; the cursor then stands in the gap, so that SetPosition(POS_CURRENT, 1)
    /// goes on with the element that followed. False when nothing is current.
    [[nodiscard]] bool Remove();

private:
    struct TSElement {
        TSElement* previous;
        TSElement* next;
        void* data;
    };

    TSChain<TSElement> m_chain;
};
