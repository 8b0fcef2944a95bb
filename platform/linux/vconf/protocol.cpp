#include "vconf/protocol.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "vconf.h"

namespace keystore {
namespace {

/// Begins each frame; the key and the text follow.
struct Head {
    std::uint8_t operation;
    std::uint8_t type;
    std::uint16_t keyBytes;
    std::uint32_t textBytes;
    std::int32_t number;
    std::int32_t error;
    std::uint32_t ticket;
    std::uint32_t unused;
    std::int64_t change;
};
static_assert(sizeof(Head) == 32);

constexpr std::size_t kMaxFrameBytes = sizeof(Head) + kMaxKeyBytes + kMaxTextBytes;

bool IsMessage(const Head& head, std::size_t size) {
    const bool known = head.operation >= static_cast<std::uint8_t>(Operation::Get) &&
                       head.operation <= static_cast<std::uint8_t>(Operation::Next);
    return known && head.type <= VCONF_TYPE_BOOL && head.keyBytes <= kMaxKeyBytes &&
           head.textBytes <= kMaxTextBytes && size == sizeof(head) + head.keyBytes + head.textBytes &&
           (head.textBytes == 0 || head.type == VCONF_TYPE_STRING);
}

bool Unpack(const char* frame, std::size_t size, Message* out) {
    Head head{};
    if (size < sizeof(head)) {
        return false;
    }
    std::memcpy(&head, frame, sizeof(head));
    // What ends a text for C does not belong into one.
    if (!IsMessage(head, size) || std::memchr(frame + sizeof(head), 0, size - sizeof(head)) != nullptr) {
        return false;
    }
    out->operation = static_cast<Operation>(head.operation);
    out->error = head.error;
    out->ticket = head.ticket;
    out->change = head.change;
    out->key.assign(frame + sizeof(head), head.keyBytes);
    out->value.type = head.type;
    out->value.number = head.number;
    out->value.text.assign(frame + sizeof(head) + head.keyBytes, head.textBytes);
    return true;
}

Transfer Failed() {
    return errno == EAGAIN ? Transfer::WouldBlock : Transfer::Broken;
}

}  // namespace

std::string Pack(const Message& message) {
    Head head{};
    head.operation = static_cast<std::uint8_t>(message.operation);
    head.type = static_cast<std::uint8_t>(message.value.type);
    head.keyBytes = static_cast<std::uint16_t>(message.key.size());
    head.textBytes = static_cast<std::uint32_t>(message.value.text.size());
    head.number = message.value.number;
    head.error = message.error;
    head.ticket = message.ticket;
    head.change = message.change;
    std::string frame;
    frame.reserve(sizeof(head) + message.key.size() + message.value.text.size());
    frame.append(reinterpret_cast<const char*>(&head), sizeof(head));
    return frame.append(message.key).append(message.value.text);
}

Transfer SendFrame(int socket, const std::string& frame, int flags) {
    ssize_t sent = 0;
    do {
        sent = send(socket, frame.data(), frame.size(), flags | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0 ? Transfer::Done : Failed();
}

Receiver::Receiver() : m_frame(new char[kMaxFrameBytes]) {}

Transfer Receiver::Receive(int socket, Message* out, int flags) {
    ssize_t size = 0;
    do {
        // The length of the whole frame, also of one that is too long.
        size = recv(socket, m_frame.get(), kMaxFrameBytes, flags | MSG_TRUNC);
        // A peer that hung up on unread requests may have left an answer: the next receive tells.
    } while (size < 0 && (errno == EINTR || errno == ECONNRESET));
    if (size < 0) {
        return Failed();
    }
    if (size == 0) {
        errno = EPIPE;
        return Transfer::Broken;
    }
    if (static_cast<std::size_t>(size) > kMaxFrameBytes ||
        !Unpack(m_frame.get(), static_cast<std::size_t>(size), out)) {
        errno = EPROTO;
        return Transfer::Broken;
    }
    return Transfer::Done;
}

}  // namespace keystore
