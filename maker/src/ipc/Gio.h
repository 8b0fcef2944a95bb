#pragma once
/// What the IPC's two sides share about GDBus: owners of its handles, the way from a C callback back to a C++
/// object, and small helpers.
#include <gio/gio.h>

#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "MakerLog.h"
#include "Names.h"

namespace zol::ipc {

template <auto Function>
struct FreeWith {
    template <class T>
    void operator()(T* handle) const {
        Function(handle);
    }
};
using GErrorPtr = std::unique_ptr<GError, FreeWith<g_error_free>>;
using GCharPtr = std::unique_ptr<gchar, FreeWith<g_free>>;
using GVariantPtr = std::unique_ptr<GVariant, FreeWith<g_variant_unref>>;
using GMainContextPtr = std::unique_ptr<GMainContext, FreeWith<g_main_context_unref>>;
using GNodeInfoPtr = std::unique_ptr<GDBusNodeInfo, FreeWith<g_dbus_node_info_unref>>;
using GConnectionPtr = std::unique_ptr<GDBusConnection, FreeWith<g_object_unref>>;
using GCancellablePtr = std::unique_ptr<GCancellable, FreeWith<g_object_unref>>;

/// Receives an error of GLib: `CallIt(..., Out(error))`.
class ErrorOut {
public:
    explicit ErrorOut(GErrorPtr& owner) : m_owner(owner) {}
    ~ErrorOut() {
        if (m_raw != nullptr) {
            m_owner.reset(m_raw);
        }
    }
    ErrorOut(const ErrorOut&) = delete;
    ErrorOut& operator=(const ErrorOut&) = delete;
    operator GError**() { return &m_raw; }

private:
    GErrorPtr& m_owner;
    GError* m_raw = nullptr;
};

/// A timer or idle source, taken out of its context at the end of its owner's life.
struct DestroySource {
    void operator()(GSource* source) const {
        g_source_destroy(source);
        g_source_unref(source);
    }
};
using GSourcePtr = std::unique_ptr<GSource, DestroySource>;

/// A timer on `context` (null: the default one).
GSourcePtr StartTimer(GMainContext* context, unsigned milliseconds, GSourceFunc function, gpointer data);

/// Names one object of type T in the user data of C callbacks. A callback that comes late finds null instead
/// of a freed object. The object and its callbacks live on one thread; the lock makes the hand-over between
/// the thread that starts something and the thread that is called back visible to more than GLib.
template <class T>
class Handle {
public:
    explicit Handle(T* object) {
        Table& table = TheTable();
        const std::lock_guard<std::mutex> lock(table.mutex);
        m_id = ++table.lastId;
        table.objects.emplace(m_id, object);
    }
    ~Handle() {
        Table& table = TheTable();
        const std::lock_guard<std::mutex> lock(table.mutex);
        table.objects.erase(m_id);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    gpointer Data() const { return GUINT_TO_POINTER(m_id); }

    static T* Find(gpointer data) {
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

/// Runs `body` at the boundary to C: nothing it throws gets through.
template <class Body>
void AtBoundary(const char* what, Body&& body) noexcept {
    try {
        body();
    } catch (const std::exception& error) {
        MAKER_ERROR("IPC: %s failed: %s", what, error.what());
    } catch (...) {
        MAKER_ERROR("IPC: %s failed", what);
    }
}

/// The introspection data. Throws std::runtime_error when the embedded document is not valid.
GNodeInfoPtr LoadIntrospection();

/// The address of the system bus, or of the session bus; empty with `error` set when there is none.
std::string BusAddress(bool sessionBus, GErrorPtr& error);

/// Answers a call with a D-Bus error. Bytes of `message` that are not UTF-8 are replaced.
void ReturnError(GDBusMethodInvocation* invocation, const char* name, const std::string& message);

/// The waits between attempts to reach the bus.
class RetryDelay {
public:
    /// The wait before the next attempt, in milliseconds.
    unsigned Next() {
        const unsigned now = m_next;
        m_next = m_next < kLastRetryMs / 2 ? m_next * 2 : kLastRetryMs;
        return now;
    }
    void Reset() { m_next = kFirstRetryMs; }

private:
    unsigned m_next = kFirstRetryMs;
};

}  // namespace zol::ipc
