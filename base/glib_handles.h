#pragma once
/// Owners of GLib's handles.
#include <gio/gio.h>

#include <functional>
#include <memory>
#include <utility>

#include "base/handles.h"

namespace base {

/// Takes a source off its context before it lets go of it.
struct DestroySource {
    void operator()(GSource* source) const noexcept {
        g_source_destroy(source);
        g_source_unref(source);
    }
};

template <typename T>
using GObjectPtr = std::unique_ptr<T, FreeWith<g_object_unref>>;
using GErrorPtr = std::unique_ptr<GError, FreeWith<g_error_free>>;
using GVariantPtr = std::unique_ptr<GVariant, FreeWith<g_variant_unref>>;
using GStringPtr = std::unique_ptr<char, FreeWith<g_free>>;
using GMainContextPtr = std::unique_ptr<GMainContext, FreeWith<g_main_context_unref>>;
using GMainLoopPtr = std::unique_ptr<GMainLoop, FreeWith<g_main_loop_unref>>;
using GSourcePtr = std::unique_ptr<GSource, DestroySource>;

/// Receives the GError of one call: `Call(..., OutError(owner))`. A call without an error empties the owner.
class OutError {
public:
    explicit OutError(GErrorPtr& owner) : m_owner(owner) {}
    ~OutError() { m_owner.reset(m_error); }
    OutError(const OutError&) = delete;
    OutError& operator=(const OutError&) = delete;
    operator GError**() { return &m_error; }

private:
    GErrorPtr& m_owner;
    GError* m_error = nullptr;
};

/// The text of an error for a log line; "unknown error" for none.
inline const char* ErrorText(const GError* error) {
    return error != nullptr ? error->message : "unknown error";
}

/// Calls `function` once after `milliseconds` on `context` (null: the default one). Destroying the result on
/// the context's thread cancels it, also from inside the function. An exception ends the process.
[[nodiscard]] inline GSourcePtr StartTimer(GMainContext* context, unsigned milliseconds,
                                           std::function<void()> function) {
    using Function = std::function<void()>;
    const auto run = [](gpointer data) noexcept -> gboolean {
        (*static_cast<Function*>(data))();
        return G_SOURCE_REMOVE;
    };
    const auto release = [](gpointer data) { delete static_cast<Function*>(data); };
    GSourcePtr timer(g_timeout_source_new(milliseconds));
    g_source_set_callback(timer.get(), run, new Function(std::move(function)), release);
    g_source_attach(timer.get(), context);
    return timer;
}

}  // namespace base
