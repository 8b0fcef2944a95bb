#pragma once
/// The services that this platform uses, for platform_services_missing.
#include <string>

namespace platform {

/// One service for as long as somebody uses it; there until Set says otherwise. Any thread.
class ServiceMark {
public:
    /// @param name what people call it
    explicit ServiceMark(std::string name);
    ~ServiceMark();
    ServiceMark(const ServiceMark&) = delete;
    ServiceMark& operator=(const ServiceMark&) = delete;

    void Set(bool isMissing);

private:
    friend class ServiceMarks;

    const std::string m_name;
    bool m_isMissing = false;
};

}  // namespace platform
