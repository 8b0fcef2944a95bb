#pragma once
/// The bodies of CCHash, instantiated once beside each kind of keys.
///
/// Keys has: kSource and kHeader (where assertions point), Report (how they are reported), kMustBeEmpty
/// (Destroy asserts that no node is left), Hash(key), Equal(a, b), Copy(key, &copy) (false without memory)
/// and Free(copy).
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "Cursor.h"
#include "Hash.h"
#include "Logging.h"
#include "TSChain.h"

/// One step of the hash over a key's bytes.
constexpr std::uint32_t HashByte(std::uint32_t hash, unsigned char byte) {
    return hash * 33U + byte;
}

/// Keys that are their own copies.
template <class Integer>
struct TSPlainKeys {
    static constexpr bool kMustBeEmpty = false;
    static void Report(const char* expression, const char* source, int line) {
        __ASSERT_ATSC3(expression, source, line);
    }
    static std::uint32_t Hash(Integer key) {
        std::uint32_t hash = 0;
        for (std::size_t i = 0; i < sizeof(key); ++i) {
            hash = HashByte(hash, static_cast<unsigned char>((key >> (8 * i)) & 0xFFU));
        }
        return hash;
    }
    static bool Equal(Integer a, Integer b) { return a == b; }
    static bool Copy(Integer key, Integer* copy) {
        *copy = key;
        return true;
    }
    static void Free(Integer /*copy*/) {}
};

/// Largest number of buckets; a prime.
constexpr unsigned long kMaxTableSize = 0x7fffffffUL;

/// 2 for less than 2, else the smallest prime at or above the request.
std::uint32_t HashTableSize(std::uint32_t request);

template <class Argument, class Stored, class Keys>
struct CCHash<Argument, Stored, Keys>::TSNode {
    Stored key;
    TSNode* previous;
    TSNode* next;
    const void* data;
};

template <class Argument, class Stored, class Keys>
struct CCHash<Argument, Stored, Keys>::TSRecord {
    TSChain<TSNode> chain;
    std::uint32_t tableSize;
    std::unique_ptr<TSNode*[]> table;
    Keys keys;

    std::uint32_t Bucket(Stored key) const { return keys.Hash(key) % tableSize; }

    /// The first node of the first bucket behind this one that is not empty.
    TSNode* FirstBehind(std::uint32_t bucket) const {
        for (std::uint32_t i = bucket + 1; i < tableSize; ++i) {
            if (table[i] != nullptr) {
                return table[i];
            }
        }
        return nullptr;
    }

    /// Frees the node under the cursor and leaves the cursor in the gap.
    void RemoveCurrent() {
        TSNode* const node = chain.current;
        const std::uint32_t bucket = Bucket(node->key);
        if (table[bucket] == node) {
            TSNode* const next = node->next;
            table[bucket] = next != nullptr && Bucket(next->key) == bucket ? next : nullptr;
        }
        chain.UnlinkCurrent();
        keys.Free(node->key);
        delete node;
    }
};

/// Reports a failed assertion of these keys' table; the report may return.
template <class Keys>
bool HashHolds(bool condition, const char* expression, int line, const char* source = Keys::kSource) {
    if (!condition) {
        Keys::Report(expression, source, line);
    }
    return condition;
}

template <class Argument, class Stored, class Keys>
CCHash<Argument, Stored, Keys>::~CCHash() {
    HashHolds<Keys>(m == nullptr, "!m", 30, Keys::kHeader);
}

template <class Argument, class Stored, class Keys>
bool CCHash<Argument, Stored, Keys>::t_Create(unsigned long sizeOfTable, Keys keys) {
    if (!HashHolds<Keys>(sizeOfTable > 0, "sizeOfTable > 0", 31) ||
        !HashHolds<Keys>(sizeOfTable <= kMaxTableSize, "sizeOfTable <= 0x7fffffff", 32) ||
        !HashHolds<Keys>(m == nullptr, "!m", 33)) {
        return false;
    }
    const std::uint32_t size = HashTableSize(static_cast<std::uint32_t>(sizeOfTable));
    if (std::size_t{size} > SIZE_MAX / sizeof(void*)) {
        return false;
    }
    auto table = std::unique_ptr<TSNode*[]>(new (std::nothrow) TSNode*[size]());
    if (table == nullptr) {
        return false;
    }
    m = new (std::nothrow) TSRecord{{}, size, std::move(table), keys};
    return m != nullptr;
}

template <class Argument, class Stored, class Keys>
void CCHash<Argument, Stored, Keys>::Destroy() {
    if (!HashHolds<Keys>(m != nullptr, "m", 71)) {
        return;
    }
    if constexpr (Keys::kMustBeEmpty) {
        HashHolds<Keys>(m->chain.size == 0, "m->size == 0", 72);
    }
    while (m->chain.head != nullptr) {
        m->chain.current = m->chain.head;
        m->RemoveCurrent();
    }
    delete m;
    m = nullptr;
}

template <class Argument, class Stored, class Keys>
unsigned long CCHash<Argument, Stored, Keys>::Count() const {
    return HashHolds<Keys>(m != nullptr, "m", 80) ? m->chain.size : 0;
}

template <class Argument, class Stored, class Keys>
bool CCHash<Argument, Stored, Keys>::Add(Argument argument, const void* data) {
    if (!HashHolds<Keys>(m != nullptr, "m", 88)) {
        return false;
    }
    const auto key = static_cast<Stored>(argument);
    auto node = std::unique_ptr<TSNode>(new (std::nothrow) TSNode{Stored{}, nullptr, nullptr, data});
    if (node == nullptr || !m->keys.Copy(key, &node->key)) {
        return false;
    }
    const std::uint32_t bucket = m->Bucket(key);
    TSNode* const run = m->table[bucket];
    TSNode* const next = run != nullptr ? run : m->FirstBehind(bucket);
    m->chain.Link(node.get(), next != nullptr ? next->previous : m->chain.tail, next);
    m->table[bucket] = node.release();
    return true;
}

template <class Argument, class Stored, class Keys>
bool CCHash<Argument, Stored, Keys>::Find(Argument argument) {
    if (!HashHolds<Keys>(m != nullptr, "m", 139)) {
        return false;
    }
    const auto key = static_cast<Stored>(argument);
    if (m->chain.HasCurrent() && m->keys.Equal(m->chain.current->key, key)) {
        return true;
    }
    const std::uint32_t bucket = m->Bucket(key);
    if (m->table[bucket] == nullptr) {
        m->chain.current = nullptr;
        return false;
    }
    for (TSNode* node = m->table[bucket]; node != nullptr; node = node->next) {
        if (m->keys.Equal(node->key, key)) {
            m->chain.current = node;
            return true;
        }
        if (m->Bucket(node->key) != bucket) {
            break;
        }
    }
    return false;
}

template <class Argument, class Stored, class Keys>
bool CCHash<Argument, Stored, Keys>::SetPosition(EPosState state, long index) {
    if (!HashHolds<Keys>(m != nullptr, "m", 184)) {
        return false;
    }
    return MoveCursor(m->chain, state, index, {Keys::Report, Keys::kSource, 196, 243});
}

template <class Argument, class Stored, class Keys>
bool CCHash<Argument, Stored, Keys>::Remove() {
    if (!HashHolds<Keys>(m != nullptr, "m", 267) || !m->chain.HasCurrent()) {
        return false;
    }
    m->RemoveCurrent();
    return true;
}

template <class Argument, class Stored, class Keys>
Argument CCHash<Argument, Stored, Keys>::Key() const {
    const bool current = HashHolds<Keys>(m != nullptr, "m", 358) &&
                         HashHolds<Keys>(m->chain.current != nullptr, "m->cur", 359);
    return current ? m->chain.current->key : Stored{};
}

template <class Argument, class Stored, class Keys>
const void* CCHash<Argument, Stored, Keys>::Data() const {
    const bool current = HashHolds<Keys>(m != nullptr, "m", 367) &&
                         HashHolds<Keys>(m->chain.current != nullptr, "m->cur", 368);
    return current ? m->chain.current->data : nullptr;
}
