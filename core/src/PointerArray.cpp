#include "PointerArray.h"

#include <algorithm>
#include <climits>
#include <new>
#include <utility>

#include "Logging.h"

namespace {

constexpr const char* kSource = "core/src/PointerArray";
constexpr const char* kIndexInRange = "0 <= index && index < m_size";
/// Slots by which the array grows.
constexpr int kGrowth = 4;

}  // namespace

CCPointerArray::CCPointerArray(RemoveCallback cbRemove, void* userData) : m_callback{userData, cbRemove} {}

CCPointerArray::~CCPointerArray() {
    RemoveAll();
}

bool CCPointerArray::m_Reserve(int capacity) {
    if (capacity <= m_capacity) {
        return true;
    }
    std::unique_ptr<void*[]> grown(new (std::nothrow) void*[static_cast<unsigned>(capacity)]());
    if (grown == nullptr) {
        return false;
    }
    std::copy(m_storage, m_storage + m_size, grown.get());
    m_grown = std::move(grown);
    m_storage = m_grown.get();
    m_capacity = capacity;
    return true;
}

void CCPointerArray::m_TellRemoved(void* element) const {
    if (m_callback.cbRemove != nullptr) {
        m_callback.cbRemove(m_callback.userData, element);
    }
}

bool CCPointerArray::m_MakeRoom() {
    return m_size < m_capacity || (m_capacity <= INT_MAX - kGrowth && m_Reserve(m_capacity + kGrowth));
}

bool CCPointerArray::Add(void* element) {
    return Insert(m_size, element);
}

bool CCPointerArray::Insert(int index, void* element) {
    if (index < 0 || index > m_size || !m_MakeRoom()) {
        return false;
    }
    std::copy_backward(m_storage + index, m_storage + m_size, m_storage + m_size + 1);
    m_storage[index] = element;
    ++m_size;
    return true;
}

bool CCPointerArray::Set(int index, void* element) {
    if (index < 0 || index > INT_MAX - kGrowth || !m_Reserve((index / kGrowth + 1) * kGrowth)) {
        return false;
    }
    if (m_storage[index] == nullptr) {
        ++m_validCount;
    } else {
        m_TellRemoved(m_storage[index]);
    }
    m_storage[index] = element;
    m_size = std::max(m_size, index + 1);
    return true;
}

bool CCPointerArray::RemoveAt(int index) {
    if (!AssertAtsc3(m_Contains(index), kIndexInRange, kSource, 113)) {
        return false;
    }
    m_TellRemoved(m_storage[index]);
    std::copy(m_storage + index + 1, m_storage + m_size, m_storage + index);
    --m_size;
    // Slots behind the end are null, so that Set there does not take a leftover for an element.
    m_storage[m_size] = nullptr;
    return true;
}

bool CCPointerArray::RemoveAll() {
    AssertAtsc3(m_size == 0 || m_callback.cbRemove != nullptr, "m_callback.cbRemove", kSource, 163);
    for (int i = 0; i < m_size; ++i) {
        if (m_storage[i] != nullptr) {
            m_TellRemoved(m_storage[i]);
        }
    }
    m_grown.reset();
    m_storage = m_inline;
    std::fill_n(m_inline, kInlineSlots, nullptr);
    m_capacity = kInlineSlots;
    m_size = 0;
    m_validCount = 0;
    return true;
}

bool CCPointerArray::Merge(CCPointerArray* other) {
    if (other == nullptr || other == this || other->m_size > INT_MAX - m_size ||
        !m_Reserve(m_size + other->m_size)) {
        return false;
    }
    std::copy(other->m_storage, other->m_storage + other->m_size, m_storage + m_size);
    m_size += other->m_size;
    std::fill_n(other->m_storage, other->m_size, nullptr);
    other->m_size = 0;
    return true;
}

void* CCPointerArray::Data(int index) const {
    return AssertAtsc3(m_Contains(index), kIndexInRange, kSource, 139) ? m_storage[index] : nullptr;
}

bool CCPointerArray::GetAt(int index, void** out) const {
    if (!m_Contains(index)) {
        return false;
    }
    if (out != nullptr) {
        *out = m_storage[index];
    }
    return true;
}
