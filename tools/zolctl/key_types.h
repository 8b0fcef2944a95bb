#pragma once
/// Which types keys have, for whoever can do without knowing.
#include <cstdint>
#include <map>
#include <string>

namespace zolctl {

/// Asks the key store where somebody serves it; starts none. At the first trouble, or when it takes long in
/// all, no further key is asked for. Not thread-safe.
class KeyTypes {
public:
    KeyTypes();

    /// enum vconf_type; VCONF_TYPE_NONE when it is not known.
    [[nodiscard]] int TypeOf(const std::string& key);

private:
    int m_Ask(const std::string& key);

    bool m_isAsked;  ///< no longer once it has been in trouble
    std::uint64_t m_end;
    std::map<std::string, int> m_known;
};

}  // namespace zolctl
