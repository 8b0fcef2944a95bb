#include "StoredNumber.h"

#include <sstream>
#include <string>

#include "VconfString.h"

namespace zol {

EStoredNumber ReadStoredNumber(const char* key, std::int64_t& number) {
    const VconfString text = GetVconfString(key);
    if (text == nullptr) {
        return EStoredNumber::MISSING;
    }
    std::stringstream stream;
    if (!(stream << text.get())) {
        return EStoredNumber::STREAM_FAILED;
    }
    // A failed extraction writes 0 or a limit, which must not reach the caller's field.
    std::int64_t value = 0;
    if (!(stream >> value)) {
        return EStoredNumber::CONVERT_FAILED;
    }
    number = value;
    return EStoredNumber::LOADED;
}

void WriteStoredNumber(const char* key, std::int64_t number) {
    vconf_set_str(key, std::to_string(number).c_str());
}

}  // namespace zol
