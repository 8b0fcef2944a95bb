#pragma once
#include <glib.h>

#include <map>
#include <mutex>

namespace base {

/// Names one object of type T in the user data of C callbacks: one that comes late finds null instead of a
/// freed object. The object and its callbacks live on one thread; the lock makes the hand-over between the
/// thread that starts something and the thread that is called back visible to more than GLib.
template <typename T>
class CallbackHandle {
public:
    explicit CallbackHandle(T* object) {
        Table& table = TheTable();
        const std::lock_guard<std::mutex> lock(table.mutex);
        m_id = ++table.lastId;
        table.objects.emplace(m_id, object);
    }
    ~CallbackHandle() {
        Table& table = TheTable();
        const std::lock_guard<std::mutex> lock(table.mutex);
        table.objects.erase(m_id);
    }
    CallbackHandle(const CallbackHandle&) = delete;
    CallbackHandle& operator=(const CallbackHandle&) = delete;

    /// What to hand to C as user data.
    [[nodiscard]] gpointer Data() const { return GUINT_TO_POINTER(m_id); }

    /// The object behind user data; null when it is gone.
    [[nodiscard]] static T* Find(gpointer data) {
        Table& table = TheTable();
        const std::lock_guard<std::mutex> lock(table.mutex);
        const auto found = table.objects.find(GPOINTER_TO_UINT(data));
        return found != table.objects.end() ? found->second : nullptr;
    }

private:
    struct Table {
        std::mutex mutex;
        guint lastId = 0;
        std::map<guint, T*> objects;
    };
    // Never destroyed: GLib may call back while the process's statics go.
    static Table& TheTable() {
        static auto* table = new Table;
        return *table;
    }

    guint m_id = 0;
};

}  // namespace base
