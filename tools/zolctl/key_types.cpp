#include "key_types.h"

#include <cerrno>

#include "base/glib_handles.h"
#include "platform_clock.h"
#include "vconf.h"

namespace zolctl {
namespace {

constexpr std::uint64_t kPatienceNs = 1000000000;

}  // namespace

KeyTypes::KeyTypes() : m_isAsked(vconf_is_served() != 0), m_end(platform_clock_steady_ns() + kPatienceNs) {}

int KeyTypes::TypeOf(const std::string& key) {
    const auto [known, isNew] = m_known.emplace(key, VCONF_TYPE_NONE);
    if (isNew && m_isAsked) {
        known->second = m_Ask(key);
        m_isAsked = m_isAsked && platform_clock_steady_ns() < m_end;
    }
    return known->second;
}

int KeyTypes::m_Ask(const std::string& key) {
    int value = 0;
    errno = 0;
    if (vconf_get_int(key.c_str(), &value) == 0) {
        return VCONF_TYPE_INT;
    }
    if (errno == EINVAL) {
        if (const base::MallocString text{vconf_get_str(key.c_str())}) {
            return VCONF_TYPE_STRING;
        }
        if (vconf_get_bool(key.c_str(), &value) == 0) {
            return VCONF_TYPE_BOOL;
        }
    }
    m_isAsked = errno == EINVAL || errno == ENOENT;
    return VCONF_TYPE_NONE;
}

}  // namespace zolctl
