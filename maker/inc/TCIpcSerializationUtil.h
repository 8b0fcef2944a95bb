#pragma once
/// Byte arrays of IPC calls to and from streams.
#include <sstream>
#include <vector>

struct TCIpcSerializationUtil {
    /// Replaces the content of `stream` by `bytes`; reading starts at the first.
    static void ConvertData(const std::vector<unsigned char>& bytes, std::stringstream& stream);
    /// Replaces `bytes` by all that was written to `stream`.
    static void ConvertData(const std::stringstream& stream, std::vector<unsigned char>& bytes);
};
