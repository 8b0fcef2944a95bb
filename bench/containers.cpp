/// The runtime's containers beside the standard library's on the same work; all hold pointers.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <list>
#include <mutex>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

#include "FixedRingQueue.h"
#include "IntegerHash.h"
#include "List.h"
#include "PointerArray.h"
#include "StringHash.h"

namespace {

constexpr int kElements = 1000;

std::array<int, kElements> g_elements;

void* Element(int i) {
    return &g_elements[static_cast<std::size_t>(i)];
}

void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// Fills a list, walks it, and empties it.
void ListCore(benchmark::State& state) {
    for (auto _ : state) {
        CCList list;
        for (int i = 0; i < kElements; ++i) {
            Require(list.Add(Element(i), CCList::ADD_AFTER));
        }
        for (bool isThere = list.SetPosition(IPosition::POS_HEAD, 0); isThere;
             isThere = list.SetPosition(IPosition::POS_CURRENT, 1)) {
            benchmark::DoNotOptimize(list.Data());
        }
        while (list.SetPosition(IPosition::POS_HEAD, 0)) {
            Require(list.Remove());
        }
    }
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(ListCore);

void ListStandard(benchmark::State& state) {
    for (auto _ : state) {
        std::list<void*> list;
        for (int i = 0; i < kElements; ++i) {
            list.push_back(Element(i));
        }
        for (void* element : list) {
            benchmark::DoNotOptimize(element);
        }
        while (!list.empty()) {
            list.pop_front();
        }
    }
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(ListStandard);

/// Bytes of an event.
struct Slot {
    std::array<long, 6> words;
};

/// One element in and out again, on one thread: nobody waits.
void QueueCore(benchmark::State& state) {
    CCFixedRingQueue queue;
    Require(queue.Create(sizeof(Slot), 256, true, true));
    Slot slot{};
    for (auto _ : state) {
        Require(queue.Add(&slot) && queue.Get(&slot, 0));
    }
    queue.Destroy();
}
BENCHMARK(QueueCore);

void QueueStandard(benchmark::State& state) {
    std::queue<Slot> queue;
    std::mutex mutex;
    std::condition_variable changed;
    Slot slot{};
    for (auto _ : state) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            queue.push(slot);
        }
        changed.notify_one();
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return !queue.empty(); });
        slot = queue.front();
        queue.pop();
    }
}
BENCHMARK(QueueStandard);

/// Finds each of a thousand keys.
void IntegerHashCore(benchmark::State& state) {
    CCIntegerHash hash;
    Require(hash.Create(kElements));
    for (int i = 0; i < kElements; ++i) {
        Require(hash.Add(static_cast<unsigned long>(i) * 7919, Element(i)));
    }
    for (auto _ : state) {
        for (int i = 0; i < kElements; ++i) {
            Require(hash.Find(static_cast<unsigned long>(i) * 7919));
            benchmark::DoNotOptimize(hash.Data());
        }
    }
    hash.Destroy();
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(IntegerHashCore);

void IntegerHashStandard(benchmark::State& state) {
    std::unordered_map<std::uint32_t, void*> hash;
    for (int i = 0; i < kElements; ++i) {
        hash.emplace(static_cast<std::uint32_t>(i) * 7919, Element(i));
    }
    for (auto _ : state) {
        for (int i = 0; i < kElements; ++i) {
            benchmark::DoNotOptimize(hash.find(static_cast<std::uint32_t>(i) * 7919)->second);
        }
    }
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(IntegerHashStandard);

std::vector<std::string> Names() {
    std::vector<std::string> names;
    names.reserve(kElements);
    for (int i = 0; i < kElements; ++i) {
        names.push_back("db/menu/picture/key" + std::to_string(i));
    }
    return names;
}

void StringHashCore(benchmark::State& state) {
    const std::vector<std::string> names = Names();
    CCStringHash hash;
    Require(hash.Create(kElements, CCStringHash::kNulTerminated));
    for (int i = 0; i < kElements; ++i) {
        Require(hash.Add(names[static_cast<std::size_t>(i)].c_str(), Element(i)));
    }
    for (auto _ : state) {
        for (const std::string& name : names) {
            Require(hash.Find(name.c_str()));
            benchmark::DoNotOptimize(hash.Data());
        }
    }
    while (hash.SetPosition(IPosition::POS_HEAD, 0)) {
        Require(hash.Remove());
    }
    hash.Destroy();
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(StringHashCore);

void StringHashStandard(benchmark::State& state) {
    const std::vector<std::string> names = Names();
    std::unordered_map<std::string, void*> hash;
    for (int i = 0; i < kElements; ++i) {
        hash.emplace(names[static_cast<std::size_t>(i)], Element(i));
    }
    for (auto _ : state) {
        for (const std::string& name : names) {
            benchmark::DoNotOptimize(hash.find(name)->second);
        }
    }
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(StringHashStandard);

/// Fills an array, reads each element, and empties it.
void ArrayCore(benchmark::State& state) {
    const auto ignore = [](void*, void*) {};
    for (auto _ : state) {
        CCPointerArray array(ignore);
        for (int i = 0; i < kElements; ++i) {
            Require(array.Add(Element(i)));
        }
        for (int i = 0; i < kElements; ++i) {
            benchmark::DoNotOptimize(array.Data(i));
        }
    }
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(ArrayCore);

void ArrayStandard(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<void*> array;
        // Grows on its way, as ours does.
        std::generate_n(std::back_inserter(array), kElements, [i = 0]() mutable { return Element(i++); });
        for (std::size_t i = 0; i < array.size(); ++i) {
            benchmark::DoNotOptimize(array[i]);
        }
    }
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(ArrayStandard);

}  // namespace

BENCHMARK_MAIN();
