#include "platform_services/service_mark.h"

#include <mutex>
#include <set>
#include <utility>

#include "base/exception_wall.h"
#include "platform_services.h"

namespace platform {

/// All marks, and the lock of what is in them. Never destroyed: marks may outlive everything else.
class ServiceMarks {
public:
    static ServiceMarks& The() {
        static auto* const marks = new ServiceMarks;
        return *marks;
    }

    void Add(const ServiceMark* mark) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_marks.insert(mark);
    }
    void Remove(const ServiceMark* mark) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_marks.erase(mark);
    }
    void Set(bool& isMissing, bool value) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        isMissing = value;
    }
    /// Each name once, in alphabetical order.
    std::set<std::string> Missing() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::set<std::string> names;
        for (const ServiceMark* mark : m_marks) {
            if (mark->m_isMissing) {
                names.insert(mark->m_name);
            }
        }
        return names;
    }

private:
    std::mutex m_mutex;
    std::set<const ServiceMark*> m_marks;
};

ServiceMark::ServiceMark(std::string name) : m_name(std::move(name)) {
    ServiceMarks::The().Add(this);
}

ServiceMark::~ServiceMark() {
    ServiceMarks::The().Remove(this);
}

void ServiceMark::Set(bool isMissing) {
    ServiceMarks::The().Set(m_isMissing, isMissing);
}

}  // namespace platform

void platform_services_missing(void (*each)(const char* name, void* user_data), void* user_data) {
    // Without memory none is named.
    base::CatchAll(
        [&] {
            for (const std::string& name : platform::ServiceMarks::The().Missing()) {
                each(name.c_str(), user_data);
            }
        },
        [](const char* /*why*/) {});
}
