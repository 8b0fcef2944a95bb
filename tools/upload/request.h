#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace upload {

/// Where a report goes and how. An empty text is an option that was not given.
struct Target {
    std::string url;
    std::string authorities;  ///< PEM file of who may sign for the server
    std::string certificate;  ///< PEM file of this device
    std::string key;          ///< PEM file; empty: in that of the certificate
    std::string proxy;
    long timeoutSeconds = 60;  ///< without a byte; the whole may take ten times as long
};

/// A part that is a file on the disk.
struct PartFile {
    std::string name;  ///< what the server is told
    std::string path;
    bool isPacked = false;
};

/// One report as it is sent: multipart/form-data with the parts header (JSON), id, name, whole, and one part
/// file for each file.
struct Message {
    std::string header;
    std::string id;  ///< also in the HTTP header Idempotency-Key
    std::string name;
    bool isWhole = true;
    std::vector<PartFile> files;
};

enum class Verdict { Done, Refused, Again, Unreadable };

struct Answer {
    Verdict verdict = Verdict::Again;
    std::uint64_t wishSeconds = 0;  ///< of Retry-After
    std::string reason;             ///< for all but Done
};

/// What an HTTP status means for a report: 2xx has it, 4xx does not want it, except for those that are about
/// the request or the moment: 407, 408, 421, 425 and 429.
[[nodiscard]] Verdict Judge(long status);

/// Sends the message and waits for the answer. Follows no redirection.
[[nodiscard]] Answer Send(const Target& target, const Message& message);

}  // namespace upload
