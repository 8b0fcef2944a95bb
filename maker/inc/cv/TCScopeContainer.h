#pragma once
/// Trace scopes. A call site reads:
///
///     CV_TRACE_SCOPE(scope);
///     if (scope.IsActive()) {
///         cv::TSCallItemHelper::StoreFixed(scope, level);
///     }
///
/// While tracing is inactive that costs one relaxed load.
#include <memory>

#include "cv/TCScopeHandler.h"
#include "cv/TSCallItem.h"
#include "cv/TSTrap.h"

namespace cv {

/// One call site; a static of the function that it stands in. Any thread.
class TCScopeContainer {
public:
    explicit constexpr TCScopeContainer(const TSSourceLocation& location) : m_location(location) {}

    bool IsActive() const noexcept { return TCScopeHandler::IsActive(); }
    const TSSourceLocation& Location() const noexcept { return m_location; }

private:
    TSSourceLocation m_location;
};

/// One pass through a call site, from construction to destruction. Belongs to one thread.
class TCScope {
public:
    /// @param site outlives the process's recording, being a static
    explicit TCScope(const TCScopeContainer& site) noexcept : m_active(site.IsActive()) {
        if (m_active) {
            Open(site);
        }
    }
    ~TCScope() {
        if (m_active) {
            Close();
        }
    }
    TCScope(const TCScope&) = delete;
    TCScope& operator=(const TCScope&) = delete;

    bool IsActive() const noexcept { return m_active; }

private:
    friend struct TSCallItemHelper;

    void Open(const TCScopeContainer& site) noexcept;
    void Close() noexcept;
    /// The next free item, null when there is none.
    TSCallItem* NextItem() noexcept;
    void EvaluateNumber(const TSCallItem& item) const noexcept;
    void EvaluateText(unsigned index, std::string_view value) const noexcept;
    void Match(const TSTrapItem& trap, std::string_view value) const noexcept;

    bool m_active;
    std::shared_ptr<const TSTrapCondition> m_traps;
    TSEvent m_event;  // filled in by Open
};

}  // namespace cv

/// Opens a scope with this name that ends with the enclosing block.
#define CV_TRACE_SCOPE(name)                                                                 \
    static constexpr ::cv::TCScopeContainer name##Container({__FILE__, __func__, __LINE__}); \
    ::cv::TCScope name(name##Container)
