#pragma once
#include <gtest/gtest.h>

#include <thread>
#include <vector>

/// Sends pointers through a queue from one thread to another and expects their order.
template <class Queue>
void PassThrough(Queue& queue) {
    std::vector<int> values(5000);
    std::thread adder([&] {
        for (int& value : values) {
            while (!queue.Add(&value)) {
                std::this_thread::yield();
            }
        }
    });
    for (const int& value : values) {
        void* out = nullptr;
        while (!queue.Get(&out, 0)) {
            std::this_thread::yield();
        }
        EXPECT_EQ(out, &value);
    }
    adder.join();
}
