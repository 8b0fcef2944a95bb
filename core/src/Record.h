#pragma once
/// Private records that are shared between an object and its thread.
#include <memory>
#include <new>

/// A new T, or null when there is no memory: the runtime throws no exceptions.
template <class T>
std::shared_ptr<T> MakeRecord() noexcept {
    try {
        return std::make_shared<T>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
