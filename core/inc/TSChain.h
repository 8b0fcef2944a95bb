#pragma once
/// The doubly linked chain with a cursor under the list and the hash tables.
#include <cstdint>

/// Node has `previous` and `next`. The chain links nodes and moves the cursor; it neither allocates nor frees
/// them. Not thread-safe.
template <class Node>
struct TSChain {
    Node* head = nullptr;
    Node* tail = nullptr;
    /// The cursor: a node, the marker, or null when nothing has been found yet.
    Node* current = nullptr;
    /// Stands in for a removed node: its neighbours are those of the gap.
    Node marker{};
    std::uint32_t size = 0;

    /// The cursor stands on a node.
    bool HasCurrent() const { return current != nullptr && current != &marker; }

    /// Links a node between two neighbours (null: the chain's end) and makes it current.
    void Link(Node* node, Node* previous, Node* next) {
        node->previous = previous;
        node->next = next;
        (previous != nullptr ? previous->next : head) = node;
        (next != nullptr ? next->previous : tail) = node;
        current = node;
        ++size;
    }

    /// Takes the current node out and leaves the cursor in the gap. The caller frees the node.
    Node* UnlinkCurrent() {
        Node* const node = current;
        (node->previous != nullptr ? node->previous->next : head) = node->next;
        (node->next != nullptr ? node->next->previous : tail) = node->previous;
        marker.previous = node->previous;
        marker.next = node->next;
        current = &marker;
        --size;
        return node;
    }

    /// Moves the cursor `index` steps from `start`, forward when positive. False when that runs off the chain
    /// or starts nowhere; the cursor then stays.
    bool MoveFrom(Node* start, long index) {
        Node* node = start;
        for (; node != nullptr && index > 0; --index) {
            node = node->next;
        }
        for (; node != nullptr && index < 0; ++index) {
            node = node->previous;
        }
        if (node == nullptr) {
            return false;
        }
        current = node;
        return true;
    }
};
