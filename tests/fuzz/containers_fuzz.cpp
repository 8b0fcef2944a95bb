/// Drives the list, the pointer array and the hash tables, and the standard library's containers beside them.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <utility>
#include <vector>

#include "Int64Hash.h"
#include "IntegerHash.h"
#include "List.h"
#include "PointerArray.h"
#include "StringHash.h"
#include "fuzz_target.h"

namespace {

using fuzz::Input;
using fuzz::Require;

/// Data are numbers in the place of pointers; each is given out once.
void* Datum(std::uintptr_t number) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): nobody looks behind it
    return reinterpret_cast<void*>(number);
}

/// A list beside a vector and a cursor into it.
class ListRun {
public:
    void Step(Input& input) {
        switch (input.Below(4)) {
            case 0:
            case 1:
                Add(input.Below(2) == 0 ? CCList::ADD_BEFORE : CCList::ADD_AFTER);
                break;
            case 2:
                Remove();
                break;
            default:
                Move(input);
        }
        Require(m_list.Data() == (m_isOn ? m_model[m_at] : nullptr), "the list's current data");
    }

    /// A list is emptied by its owner.
    void End() {
        for (std::size_t index = 0; index < m_model.size(); ++index) {
            const bool moved = m_list.SetPosition(CCList::POS_HEAD, static_cast<long>(index));
            Require(moved && m_list.Data() == m_model[index], "the list's order from the head");
        }
        for (std::size_t index = m_model.size(); index > 0; --index) {
            const bool moved = m_list.SetPosition(CCList::POS_TAIL, 0);
            Require(moved && m_list.Data() == m_model[index - 1] && m_list.Remove(), "the list's tail");
        }
        Require(!m_list.SetPosition(CCList::POS_HEAD, 0), "the list's end");
    }

private:
    void Add(CCList::EAddMode mode) {
        m_at += m_isOn && mode == CCList::ADD_AFTER ? 1 : 0;
        void* const datum = Datum(++m_given);
        m_model.insert(m_model.begin() + static_cast<std::ptrdiff_t>(m_at), datum);
        m_isOn = true;
        Require(m_list.Add(datum, mode), "adding to a list");
    }

    void Remove() {
        Require(m_list.Remove() == m_isOn, "removing from a list");
        if (m_isOn) {
            m_model.erase(m_model.begin() + static_cast<std::ptrdiff_t>(m_at));
            m_isOn = false;
        }
    }

    void Move(Input& input) {
        const auto size = static_cast<long>(m_model.size());
        const auto at = static_cast<long>(m_at);
        const auto state = static_cast<CCList::EPosState>(input.Below(3));
        const auto steps = static_cast<long>(input.Below(8));
        long index = steps;
        long target = steps;
        if (state == CCList::POS_TAIL) {
            index = -steps;
            target = size - 1 - steps;
        } else if (state == CCList::POS_CURRENT) {
            index = steps - 4;
            // In a gap, the element that followed the removed one is the first step forward.
            target = at + index - (!m_isOn && index > 0 ? 1 : 0);
        }
        const bool hasCursor = m_given > 0;
        const bool stays = state == CCList::POS_CURRENT && index == 0;
        const bool moves = size > 0 && (state != CCList::POS_CURRENT || hasCursor) &&
                           (stays || (target >= 0 && target < size));
        Require(m_list.SetPosition(state, index) == moves, "moving in a list");
        if (moves && !stays) {
            m_at = static_cast<std::size_t>(target);
            m_isOn = true;
        }
    }

    CCList m_list;
    std::vector<void*> m_model;
    std::size_t m_at = 0;  // of the current element, or of the gap that it left
    bool m_isOn = false;   // an element, not a gap
    std::uintptr_t m_given = 0;
};

/// Two pointer arrays that merge into one another, beside two vectors.
class PointerArrayRun {
public:
    void Step(Input& input) {
        const unsigned which = input.Below(2);
        Side& side = m_sides[which];
        const int index = static_cast<int>(input.Below(24));
        void* const datum = input.Below(4) == 0 ? nullptr : Datum(++m_given);
        switch (input.Below(6)) {
            case 0:
                Require(side.array.Add(datum), "adding to an array");
                side.model.push_back(datum);
                break;
            case 1:
                Insert(side, index, datum);
                break;
            case 2:
                Set(side, index, datum);
                break;
            case 3:
                RemoveAt(side, index);
                break;
            case 4:
                Merge(side, m_sides[1 - which]);
                break;
            default:
                RemoveAll(side);
        }
        Compare(m_sides[0]);
        Compare(m_sides[1]);
    }

    void End() {
        RemoveAll(m_sides[0]);
        Compare(m_sides[0]);
    }

private:
    struct Side {
        static void LeaveCb(void* left, void* element) {
            static_cast<std::vector<void*>*>(left)->push_back(element);
        }
        std::vector<void*> left;
        std::vector<void*> wantLeft;
        std::vector<void*> model;
        int valid = 0;
        CCPointerArray array{LeaveCb, &left};  // last: it calls back when it goes
    };

    static void Insert(Side& side, int index, void* datum) {
        const bool fits = index <= static_cast<int>(side.model.size());
        Require(side.array.Insert(index, datum) == fits, "inserting into an array");
        if (fits) {
            side.model.insert(side.model.begin() + index, datum);
        }
    }

    static void Set(Side& side, int index, void* datum) {
        side.model.resize(std::max(side.model.size(), static_cast<std::size_t>(index) + 1));
        void*& slot = side.model[static_cast<std::size_t>(index)];
        if (slot == nullptr) {
            ++side.valid;
        } else {
            side.wantLeft.push_back(slot);
        }
        slot = datum;
        Require(side.array.Set(index, datum), "setting in an array");
    }

    static void RemoveAt(Side& side, int index) {
        if (index >= static_cast<int>(side.model.size())) {
            return;  // an assertion
        }
        side.wantLeft.push_back(side.model[static_cast<std::size_t>(index)]);
        side.model.erase(side.model.begin() + index);
        Require(side.array.RemoveAt(index), "removing from an array");
    }

    static void RemoveAll(Side& side) {
        std::copy_if(side.model.begin(), side.model.end(), std::back_inserter(side.wantLeft),
                     [](const void* element) { return element != nullptr; });
        side.model.clear();
        side.valid = 0;
        Require(side.array.RemoveAll() && side.array.Capacity() == 4, "emptying an array");
    }

    static void Merge(Side& side, Side& other) {
        side.model.insert(side.model.end(), other.model.begin(), other.model.end());
        other.model.clear();
        Require(side.array.Merge(&other.array) && !side.array.Merge(&side.array), "merging arrays");
    }

    static void Compare(const Side& side) {
        const int size = static_cast<int>(side.model.size());
        Require(side.array.Size() == size && side.array.Capacity() >= size, "an array's size");
        Require(side.array.ValidCount() == side.valid, "an array's valid count");
        Require(side.left == side.wantLeft, "what left an array");
        for (int index = 0; index < size; ++index) {
            void* element = nullptr;
            Require(side.array.GetAt(index, &element) && side.array.Data(index) == element &&
                        element == side.model[static_cast<std::size_t>(index)],
                    "an array's element");
        }
        Require(!side.array.GetAt(size, nullptr) && !side.array.GetAt(-1, nullptr), "an array's ends");
    }

    Side m_sides[2];
    std::uintptr_t m_given = 0;
};

/// The keys of each table, few enough to meet again; many of them share a bucket.
struct IntegerKeys {
    static unsigned long Of(unsigned index) { return (index % 2 == 0 ? 1UL : 0x01010101UL) * index; }
    static bool Equal(unsigned long key, unsigned index) { return key == Of(index); }
    static bool Create(CCIntegerHash& table, unsigned long size) { return table.Create(size); }
};
struct Int64Keys {
    static std::uint64_t Of(unsigned index) { return (std::uint64_t{index} << 56) + index % 5; }
    static bool Equal(std::uint64_t key, unsigned index) { return key == Of(index); }
    static bool Create(CCInt64Hash& table, unsigned long size) { return table.Create(size); }
};
struct TextKeys {
    static const char* Of(unsigned index) {
        static char text[40];
        std::memset(text, 'a' + static_cast<int>(index % 7), sizeof(text));
        text[1 + index % 39] = '\0';
        return text;
    }
    static bool Equal(const void* key, unsigned index) {
        return std::strcmp(static_cast<const char*>(key), Of(index)) == 0;
    }
    static bool Create(CCStringHash& table, unsigned long size) {
        return table.Create(size, CCStringHash::kNulTerminated);
    }
};
struct BytesKeys {
    static constexpr unsigned long kLength = 3;
    static const void* Of(unsigned index) {
        static unsigned char bytes[kLength];
        bytes[0] = static_cast<unsigned char>(index);
        bytes[1] = 0;
        bytes[2] = static_cast<unsigned char>(index % 3);
        return bytes;
    }
    static bool Equal(const void* key, unsigned index) { return std::memcmp(key, Of(index), kLength) == 0; }
    static bool Create(CCStringHash& table, unsigned long size) { return table.Create(size, kLength); }
};

/// A hash table beside a map from keys to data, the newest last.
template <class Table, class Keys>
class HashRun {
public:
    explicit HashRun(Input& input) {
        Require(Keys::Create(m_table, 1 + input.Below(40)), "creating a table");
    }

    void Step(Input& input) {
        const unsigned key = input.Byte();
        switch (input.Below(5)) {
            case 0:
            case 1:
                Add(key);
                break;
            case 2:
                Find(key);
                break;
            case 3:
                Remove();
                break;
            default:
                RemoveOnTheWay(key);
        }
        Require(m_table.Count() == m_count, "a table's count");
        CompareCurrent();
    }

    void End() {
        RemoveOnTheWay(0xff);
        Require(m_table.Count() == 0 && !m_table.SetPosition(Table::POS_HEAD, 0), "a table's end");
        m_table.Destroy();
    }

private:
    using Node = std::pair<unsigned, const void*>;
    enum class At { UNKNOWN, NODE, GAP };

    void Stand(Node node) {
        m_at = At::NODE;
        m_current = node;
    }

    void Add(unsigned key) {
        const void* const datum = Datum(++m_given);
        Require(m_table.Add(Keys::Of(key), datum), "adding to a table");
        m_model[key].push_back(datum);
        m_keyOf[datum] = key;
        ++m_count;
        Stand({key, datum});
    }

    void Find(unsigned key) {
        const std::vector<const void*>& nodes = m_model[key];
        Require(m_table.Find(Keys::Of(key)) == !nodes.empty(), "finding in a table");
        if (nodes.empty()) {
            m_at = At::UNKNOWN;
        } else if (m_at != At::NODE || m_current.first != key) {
            Require(m_at == At::UNKNOWN || m_table.Data() == nodes.back(), "the node added last");
            Stand({key, m_table.Data()});
        }
    }

    void Remove() {
        if (m_at == At::UNKNOWN) {
            return;
        }
        Require(m_table.Remove() == (m_at == At::NODE), "removing from a table");
        if (m_at == At::NODE) {
            Forget(m_current);
        }
        m_at = At::GAP;
    }

    void Forget(Node node) {
        std::vector<const void*>& nodes = m_model[node.first];
        const auto found = std::find(nodes.begin(), nodes.end(), node.second);
        Require(found != nodes.end(), "a node that was added");
        nodes.erase(found);
        --m_count;
    }

    void CompareCurrent() {
        if (m_at == At::NODE) {
            Require(m_table.Data() == m_current.second && Keys::Equal(m_table.Key(), m_current.first),
                    "a table's current node");
        } else if (m_at == At::GAP) {
            Require(m_table.Data() == nullptr && m_table.Key() == decltype(m_table.Key()){}, "a table's gap");
        }
    }

    /// All nodes in the order of the chain; the walk back ends at the first one.
    std::vector<Node> Walk() {
        std::vector<Node> nodes;
        std::map<unsigned, std::vector<const void*>> seen;
        for (bool more = m_table.SetPosition(Table::POS_HEAD, 0); more;
             more = m_table.SetPosition(Table::POS_CURRENT, 1)) {
            const auto known = m_keyOf.find(m_table.Data());
            Require(known != m_keyOf.end() && Keys::Equal(m_table.Key(), known->second), "a node's key");
            nodes.emplace_back(known->second, m_table.Data());
            std::vector<const void*>& same = seen[known->second];
            same.insert(same.begin(), m_table.Data());
            Require(nodes.size() <= m_count, "the length of a walk");
        }
        for (const auto& [key, data] : m_model) {
            Require(data.empty() || seen[key] == data, "the nodes of a key, newest first");
        }
        for (std::size_t back = 0; back < nodes.size(); ++back) {
            Require(m_table.SetPosition(Table::POS_TAIL, -static_cast<long>(back)) &&
                        m_table.Data() == nodes[nodes.size() - 1 - back].second,
                    "the walk from the tail");
        }
        return nodes;
    }

    /// Removes some nodes during a walk, which must come by all the others.
    void RemoveOnTheWay(unsigned pattern) {
        const std::vector<Node> nodes = Walk();
        bool more = m_table.SetPosition(Table::POS_HEAD, 0);
        for (std::size_t index = 0; index < nodes.size(); ++index) {
            Require(more && m_table.Data() == nodes[index].second, "the walk past removed nodes");
            Stand(nodes[index]);
            if ((pattern >> (index % 8) & 1) != 0) {
                Remove();
            }
            more = m_table.SetPosition(Table::POS_CURRENT, 1);
        }
        Require(!more, "the end of the walk");
    }

    Table m_table;
    std::map<unsigned, std::vector<const void*>> m_model;
    std::map<const void*, unsigned> m_keyOf;  // of all that was ever added
    std::size_t m_count = 0;
    std::uintptr_t m_given = 0;
    At m_at = At::UNKNOWN;
    Node m_current;
};

template <class Run>
void RunAll(Run& run, Input& input) {
    while (!input.IsEmpty()) {
        run.Step(input);
    }
    run.End();
}

template <class Table, class Keys>
void RunHash(Input& input) {
    HashRun<Table, Keys> run(input);
    RunAll(run, input);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    ListRun list;
    PointerArrayRun array;
    switch (input.Below(6)) {
        case 0:
            RunAll(list, input);
            break;
        case 1:
            RunAll(array, input);
            break;
        case 2:
            RunHash<CCIntegerHash, IntegerKeys>(input);
            break;
        case 3:
            RunHash<CCInt64Hash, Int64Keys>(input);
            break;
        case 4:
            RunHash<CCStringHash, TextKeys>(input);
            break;
        default:
            RunHash<CCStringHash, BytesKeys>(input);
    }
    return 0;
}
