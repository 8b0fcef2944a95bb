#pragma once
/// The stored policy: the received text, byte for byte, in one file. Nothing here logs; any thread.
#include <cstddef>
#include <cstdint>
#include <string>
#include <system_error>

namespace zol {

/// SHA-256 of a document, hexadecimal: tells one policy from another.
[[nodiscard]] std::string DigestOf(const std::string& text);

/// How reading the file went, step by step; a later step was not tried when an earlier one failed.
struct TSPolicyRead {
    std::error_code open;   ///< also when it is no regular file
    std::int64_t size = 0;  ///< bytes of the file; more than kMaxPolicyBytes are not read
    std::string text;       ///< what was read of it
};

/// @param path of the device
[[nodiscard]] TSPolicyRead ReadPolicyFile(const std::string& path);

/// Whether opening that failed for this reason may well succeed a while later.
[[nodiscard]] bool IsPassing(const std::error_code& error);

/// How replacing the file went, step by step. The old file stays unless every step went well.
struct TSPolicyWrite {
    std::error_code open;
    std::size_t written = 0;  ///< bytes
    std::error_code sync;
    std::error_code close;
    std::error_code replace;  ///< not tried after an earlier failure
};

/// Writes beside the old file and then moves the new one over it, so that a power cut at any moment leaves
/// one of them whole. With privilege the file belongs to the account of the platform's policy service.
/// @param path of the device
[[nodiscard]] TSPolicyWrite WritePolicyFile(const std::string& path, const std::string& text);

}  // namespace zol
