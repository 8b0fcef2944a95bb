#pragma once
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "waiting.h"

/// Sends pointers through a queue from one thread to another and expects their order.
template <class Queue>
void PassThrough(Queue& queue) {
    std::vector<int> values(5000);
    std::thread adder([&] {
        for (int& value : values) {
            EXPECT_TRUE(Eventually([&] { return queue.Add(&value); }));
        }
    });
    for (const int& value : values) {
        void* out = nullptr;
        EXPECT_TRUE(Eventually([&] { return queue.Get(&out, 0); }));
        EXPECT_EQ(out, &value);
    }
    adder.join();
}
