#pragma once
/// The cursor shared by the list and the hash tables.

class IPosition {
public:
    enum EPosState {
        POS_HEAD = 0,     ///< count forward from the first element
        POS_CURRENT = 1,  ///< count from the current element, either way
        POS_TAIL = 2      ///< count back from the last element
    };

    virtual ~IPosition() = default;

    /// Moves the cursor. `index` is at least 0 from the head, at most 0 from the tail (an assertion
    /// otherwise), any sign from the current element. False in an empty container and when the way runs off
    /// the chain; the cursor then stays. An unknown state returns true and changes nothing.
    [[nodiscard]] virtual bool SetPosition(EPosState state, long index) = 0;

protected:
    IPosition() = default;
    IPosition(const IPosition&) = default;
    IPosition& operator=(const IPosition&) = default;
};
