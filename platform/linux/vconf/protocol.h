#pragma once
/// What the clients of the key store and its service say to each other: frames of a SOCK_SEQPACKET socket,
/// one message each, in the machine's byte order. docs/platform-linux-store.md describes them.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace keystore {

constexpr std::size_t kMaxKeyBytes = 255;
constexpr std::size_t kMaxTextBytes = std::size_t{64} * 1024;

/// What a key holds. `type` is an enum vconf_type; VCONF_TYPE_NONE means that there is no such key.
struct Value {
    int type = 0;
    int number = 0;    ///< value of an int or bool key
    std::string text;  ///< value of a string key
};

enum class Operation : std::uint8_t {
    Get = 1,  ///< answered with the value, or ENOENT
    Set,      ///< answered when it is stored; a value of VCONF_TYPE_NONE removes the key
    Watch,    ///< answered with the number of the key's last change; every change from then on is sent. When
              ///< that number is not the one that the request holds, the key as it is now is a change, too
    Unwatch,
    Answer,   ///< to the request with the same ticket; `error` is 0 or an errno
    Changed,  ///< sent unasked to those who watch the key
    Next      ///< answered with the first key behind this one, which may be empty, and its value, or ENOENT
};

/// `Message::change` of a Watch that wants no more than the changes from now on.
constexpr std::int64_t kFromNow = -1;
/// The number of a key that never changed.
constexpr std::int64_t kNeverChanged = 0;
struct Message {
    Operation operation = Operation::Answer;
    std::int32_t error = 0;
    std::uint32_t ticket = 0;  ///< chosen by the client
    std::int64_t change =
        0;  ///< numbers of one key's changes grow; a store that is begun anew begins elsewhere
    std::string key;
    Value value;
};

enum class Transfer { Done, WouldBlock, Broken };

/// A message in the bytes of its frame. Key and text must keep the limits.
[[nodiscard]] std::string Pack(const Message& message);
/// Done also means that the peer has all of it or none. Broken leaves errno.
[[nodiscard]] Transfer SendFrame(int socket, const std::string& frame, int flags = 0);

/// Receives messages, from any number of sockets in turn.
class Receiver {
public:
    Receiver();
    /// Broken, with errno: the peer is gone (EPIPE) or sent what is no message (EPROTO).
    [[nodiscard]] Transfer Receive(int socket, Message* out, int flags = 0);

private:
    std::unique_ptr<char[]> m_frame;  // of the longest length; pages that no frame reaches cost nothing
};

}  // namespace keystore
