#pragma once
/// Owners of the C handles that the Linux platform uses.
#include <gio/gio.h>
#include <gio/gunixfdlist.h>

#include <cstdlib>
#include <memory>

namespace platform {

template <auto Free>
struct FreeWith {
    template <typename T>
    void operator()(T* handle) const noexcept {
        Free(handle);
    }
};

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
/// For what the platform interfaces hand over.
using MallocString = std::unique_ptr<char, FreeWith<std::free>>;

/// Receives the GError of one call: `Call(..., OutError(owner))`.
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

}  // namespace platform
