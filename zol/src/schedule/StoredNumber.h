#pragma once
/// Numbers kept in vconf strings: the decimal text of a signed 64-bit integer.
#include <cstdint>

namespace zol {

enum class EStoredNumber {
    LOADED,
    MISSING,        ///< no such string key, or it cannot be read
    STREAM_FAILED,  ///< no memory for the text
    CONVERT_FAILED  ///< the text does not begin with a number that fits
};

/// Reads `key`; `number` is written only when the result is LOADED. Any thread.
EStoredNumber ReadStoredNumber(const char* key, std::int64_t& number);

/// Writes `key`. A failed write is ignored: the number in memory stays in force and the next write of the key
/// may succeed. Any thread.
void WriteStoredNumber(const char* key, std::int64_t number);

}  // namespace zol
