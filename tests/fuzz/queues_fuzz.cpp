/// Drives the three queues, and the standard library's beside them.
#include <deque>
#include <optional>
#include <vector>

#include "DynamicRingQueue.h"
#include "FixedRingQueue.h"
#include "RingQueue.h"
#include "fuzz_target.h"

namespace {

using fuzz::Input;
using fuzz::Require;

constexpr int kNoWait = 0;

/// A queue of pointers with room for so many.
template <class Queue>
void RunPointers(Queue& queue, std::size_t room, Input& input) {
    std::deque<void*> model;
    std::uintptr_t given = 0;
    const auto take = [&] {
        void* taken = nullptr;
        Require(queue.Get(&taken, kNoWait) == !model.empty(), "taking from a queue");
        if (!model.empty()) {
            Require(taken == model.front(), "the oldest pointer of a queue");
            model.pop_front();
        }
    };
    while (!input.IsEmpty()) {
        if (input.Below(3) == 0) {
            take();
            continue;
        }
        // NOLINTNEXTLINE(performance-no-int-to-ptr): nobody looks behind it
        auto* const value = reinterpret_cast<void*>(++given);
        Require(queue.Add(value) == (model.size() < room), "adding to a queue");
        if (model.size() < room) {
            model.push_back(value);
        }
    }
    // Half of the runs end with a queue that still holds something.
    while (given % 2 == 0 && !model.empty()) {
        take();
    }
    queue.Destroy();
}

/// The queue of elements beside a deque in which a removed one has no value.
class FixedRun {
public:
    explicit FixedRun(Input& input) : m_size(1 + input.Below(40)), m_slots(1 + input.Below(20)) {
        m_locksGet = input.Below(2) == 1;
        Require(m_queue.Create(static_cast<int>(m_size), m_slots, true, m_locksGet), "creating a queue");
    }

    void Step(Input& input) {
        switch (input.Below(4)) {
            case 0:
            case 1:
                Add();
                break;
            case 2:
                Get();
                break;
            default:
                Remove(static_cast<int>(input.Below(24)) - 2);
        }
        Require(m_queue.Size() == m_model.size(), "a queue's size");
        for (int index = -1; index <= static_cast<int>(m_model.size()); ++index) {
            Peek(index);
        }
    }

    void End() { m_queue.Destroy(); }

private:
    using Element = std::vector<unsigned char>;

    bool Holds(int index) const { return index >= 0 && index < static_cast<int>(m_model.size()); }
    std::optional<Element>& At(int index) { return m_model[static_cast<std::size_t>(index)]; }

    void Add() {
        Element element(m_size, static_cast<unsigned char>(++m_given));
        element.back() = static_cast<unsigned char>(m_given >> 8);
        const bool hasRoom = m_model.size() + 1 < m_slots;
        Require(m_queue.Add(element.data()) == hasRoom, "adding to a queue of elements");
        if (hasRoom) {
            m_model.emplace_back(element);
            ++m_wakes;
        }
    }

    /// A removed element still wakes its reader, who then skips it.
    void Get() {
        Element taken(m_size);
        const bool wakes = m_wakes > 0;
        m_wakes -= wakes ? 1 : 0;
        while (wakes && !m_model.empty() && !m_model.front()) {
            m_model.pop_front();
        }
        const bool gets = wakes && !m_model.empty();
        Require(m_queue.Get(taken.data(), kNoWait) == gets, "taking an element");
        if (gets) {
            Require(taken == m_model.front(), "the oldest element");
            m_model.pop_front();
        }
    }

    void Remove(int index) {
        Require(m_queue.Remove(index) == Holds(index), "removing an element");
        if (Holds(index)) {
            At(index).reset();
        }
    }

    void Peek(int index) {
        Element seen(m_size);
        const bool isThere = Holds(index) && At(index).has_value();
        Require(m_queue.Peek(index, seen.data()) == isThere, "looking at an element");
        Require(!isThere || seen == At(index), "the element looked at");
    }

    CCFixedRingQueue m_queue;
    const std::size_t m_size;
    const unsigned m_slots;
    bool m_locksGet = false;
    std::deque<std::optional<Element>> m_model;
    std::size_t m_wakes = 0;
    unsigned m_given = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const unsigned kind = input.Below(3);
    if (kind == 0) {
        const unsigned slots = 1 + input.Below(20);
        CCRingQueue queue;
        Require(queue.Create(slots), "creating a ring queue");
        RunPointers(queue, slots - 1, input);
    } else if (kind == 1) {
        CCDynamicRingQueue queue;
        Require(queue.Create(), "creating a dynamic queue");
        RunPointers(queue, SIZE_MAX, input);
    } else {
        FixedRun run(input);
        while (!input.IsEmpty()) {
            run.Step(input);
        }
        run.End();
    }
    return 0;
}
