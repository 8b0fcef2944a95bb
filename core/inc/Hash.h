#pragma once
/// The common mechanics of the chained hash tables. Use CCIntegerHash, CCInt64Hash or CCStringHash.
#include <cstdint>

#include "IPosition.h"

/// All nodes stand in one doubly linked chain, bucket after bucket, so a walk visits every node without
/// scanning empty buckets. The cursor (the current node) is set by Add, Find and SetPosition. After Remove it
/// stands in the gap, so that SetPosition(POS_CURRENT, 1) goes on with the node that followed. A key may
/// occur more than once; the node added last is found first.
///
/// `Argument` is how callers give keys, `Stored` how nodes keep them. `Keys` says how keys are hashed,
/// compared, copied and freed and how a failed assertion is reported; each kind is defined beside its table.
/// The data are not owned. One thread at a time, or under the owner's lock.
template <class Argument, class Stored, class Keys>
class CCHash : public IPosition {
public:
    CCHash(const CCHash&) = delete;
    CCHash& operator=(const CCHash&) = delete;

    /// Adds a node and makes it current. False without memory.
    [[nodiscard]] bool Add(Argument key, const void* data);
    /// Makes the node with this key current. False when there is none; nothing is current any more when the
    /// key's bucket is empty.
    [[nodiscard]] bool Find(Argument key);
    /// The current node's key; 0 or null, after an assertion, when nothing is current, and after Remove.
    Argument Key() const;
    /// The current node's data; null, after an assertion, when nothing is current, and null after Remove.
    const void* Data() const;
    /// Takes the current node out. False when nothing is current.
    [[nodiscard]] bool Remove();
    [[nodiscard]] bool SetPosition(EPosState state, long index) override;
    /// Number of nodes.
    unsigned long Count() const;
    /// Releases the nodes and the table.
    virtual void Destroy();

protected:
    CCHash() = default;
    /// Asserts that the table is destroyed.
    ~CCHash() override;

    [[nodiscard]] bool t_Create(unsigned long sizeOfTable, Keys keys);

private:
    struct TSNode;
    struct TSRecord;

    TSRecord* m = nullptr;
};
