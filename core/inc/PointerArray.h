#pragma once
/// A growable array of pointers that tells when an element leaves it.
#include <memory>

/// The elements are not owned; the callback may free them. It must not change the array. One thread at a
/// time, or under the owner's lock.
class CCPointerArray {
public:
    /// Runs for an element that leaves the array.
    using RemoveCallback = void (*)(void* userData, void* element);

    /// @param cbRemove may be null; an array without it must be empty when RemoveAll or the destructor runs
    explicit CCPointerArray(RemoveCallback cbRemove = nullptr, void* userData = nullptr);
    /// Runs RemoveAll.
    ~CCPointerArray();
    CCPointerArray(const CCPointerArray&) = delete;
    CCPointerArray& operator=(const CCPointerArray&) = delete;

    /// Appends. False when there is no memory.
    [[nodiscard]] bool Add(void* element);
    /// Puts an element in front of the one at `index` (at the end when `index` is the size). False out of
    /// range or when there is no memory.
    [[nodiscard]] bool Insert(int index, void* element);
    /// Replaces the element at `index`, which leaves through the callback when it is not null; otherwise one
    /// is added to the valid count. An index behind the end makes the array longer, null in between. False
    /// when the index is negative or there is no memory.
    [[nodiscard]] bool Set(int index, void* element);
    /// The element leaves through the callback and those behind it move down. The valid count stays. False,
    /// after an assertion, out of range.
    [[nodiscard]] bool RemoveAt(int index);
    /// Every element that is not null leaves through the callback; the storage goes back to four slots. An
    /// assertion when there are elements and no callback.
    bool RemoveAll();
    /// Appends all of the other array's elements and leaves it with none; no callback runs. False for null,
    /// for the array itself and when there is no memory.
    [[nodiscard]] bool Merge(CCPointerArray* other);

    /// The element at `index`; null, after an assertion, out of range.
    void* Data(int index) const;
    /// The element at `index` in `out` (which may be null). False out of range.
    [[nodiscard]] bool GetAt(int index, void** out) const;

    /// Elements added by Set into slots that were null.
    int ValidCount() const { return m_validCount; }
    /// Slots in use.
    int Size() const { return m_size; }
    /// Slots there is room for.
    int Capacity() const { return m_capacity; }

private:
    static constexpr int kInlineSlots = 4;

    bool m_Contains(int index) const { return 0 <= index && index < m_size; }
    bool m_Reserve(int capacity);
    bool m_MakeRoom();
    void m_TellRemoved(void* element) const;

    void* m_inline[kInlineSlots] = {};
    std::unique_ptr<void*[]> m_grown;  // in place of m_inline once the array has grown
    void** m_storage = m_inline;
    int m_size = 0;
    int m_capacity = kInlineSlots;
    struct {
        void* userData;
        RemoveCallback cbRemove;
    } m_callback;
    int m_validCount = 0;
};
