/// Lets several clients send frames of anything to the service of the key store, in process, and compares
/// what they get with what docs/platform-linux-store.md says.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "base/unique_fd.h"
#include "fuzz_target.h"
#include "temporary_folder.h"
#include "vconf/protocol.h"
#include "vconf/service/key_database.h"
#include "vconf/service/server.h"

namespace fs = std::filesystem;

namespace {

using fuzz::Input;
using fuzz::Require;
using keystore::KeyDatabase;
using keystore::Message;
using keystore::Operation;
using keystore::Transfer;

constexpr int kMaxActions = 100;
constexpr std::size_t kHeadBytes = 32;
constexpr unsigned kPeers = 4;
constexpr unsigned kKeyCount = 5;
const std::array<std::string, kKeyCount> kKeys = {"db/a", "memory/a", "db/b", std::string(255, 'k'), ""};

/// Type, number and text as they are stored.
using Content = std::tuple<int, int, std::string>;

Content ContentOf(const Message& message) {
    const keystore::Value& value = message.value;
    return {value.type, value.number, value.text};
}

/// Everything that somebody has tried to set, key by key; and, as every key once was, nothing.
using History = std::map<std::string, std::vector<Content>>;

template <class Number>
Number NumberAt(const std::string& frame, std::size_t place) {
    Number number{};
    std::memcpy(&number, frame.data() + place, sizeof(number));
    return number;
}

/// Reads a frame as the table of the document has it. Empty for what ends the connection.
std::optional<Message> ReadRequest(const std::string& frame) {
    if (frame.size() < kHeadBytes) {
        return std::nullopt;
    }
    const unsigned operation = NumberAt<std::uint8_t>(frame, 0);
    const unsigned type = NumberAt<std::uint8_t>(frame, 1);
    const std::size_t keyBytes = NumberAt<std::uint16_t>(frame, 2);
    const std::size_t textBytes = NumberAt<std::uint32_t>(frame, 4);
    if (operation < 1 || (operation > 4 && operation != 7) || type > 3 || keyBytes > 255 ||
        textBytes > 65536 || frame.size() != kHeadBytes + keyBytes + textBytes ||
        frame.find('\0', kHeadBytes) != std::string::npos || (textBytes > 0 && type != 2)) {
        return std::nullopt;
    }
    Message request;
    request.operation = static_cast<Operation>(operation);
    request.ticket = NumberAt<std::uint32_t>(frame, 16);
    request.change = NumberAt<std::int64_t>(frame, 24);
    request.key = frame.substr(kHeadBytes, keyBytes);
    request.value = {static_cast<int>(type), NumberAt<std::int32_t>(frame, 8),
                     frame.substr(kHeadBytes + keyBytes)};
    return request;
}

/// One client, which notes what it has asked for and checks what it is told.
class Peer {
public:
    Peer(const sockaddr_un& address, socklen_t size, History& history)
        : m_socket(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), m_history(history) {
        Require(connect(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), size) == 0,
                "a connection");
    }

    void Send(const std::string& frame) {
        // What does not fit was never sent.
        if (m_isCut || send(m_socket.Get(), frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
            return;
        }
        if (std::optional<Message> request = ReadRequest(frame)) {
            if (request->operation == Operation::Set) {
                const bool isNumber = request->value.type == 1 || request->value.type == 3;
                request->value.number = isNumber ? request->value.number : 0;
                m_history[request->key].push_back(ContentOf(*request));
            }
            m_sent.push_back(std::move(*request));
        } else {
            m_isCut = true;
        }
    }

    /// Takes one message. False when there is none.
    bool Take() {
        Message message;
        const Transfer received = m_receiver.Receive(m_socket.Get(), &message);
        m_isEnded = received == Transfer::Broken;
        if (received != Transfer::Done) {
            return false;
        }
        Require(message.operation == Operation::Answer || message.operation == Operation::Changed,
                "a word to a client");
        message.operation == Operation::Answer ? TakeAnswer(message) : TakeChange(message);
        return true;
    }

    /// Everything has been served and taken.
    void CheckSettled() {
        Require(m_isEnded == m_isCut, m_isCut ? "an end for who sent no frame" : "a connection that stays");
        Require(m_sent.empty(), "an answer to every request");
    }

    /// What it knows of the keys that it watches is how they are.
    void CheckWatches(const std::string& key, const Message& final) const {
        const auto watch = m_watches.find(key);
        if (watch == m_watches.end() || m_isCut) {
            return;
        }
        Require(!watch->second.isNewsDue, "what has changed while a client was away");
        Require(watch->second.number == final.change, "the last change of a watched key");
        Require(!watch->second.content || *watch->second.content == ContentOf(final), "its last value");
    }

private:
    struct Watch {
        std::int64_t number = 0;
        std::optional<Content> content;  // of the last change that it was told of
        bool isNewsDue = false;          // it knew another number than that of the key
    };

    void TakeAnswer(const Message& answer) {
        Require(!m_sent.empty() && m_sent.front().ticket == answer.ticket, "an answer in its turn");
        const Message request = std::move(m_sent.front());
        m_sent.pop_front();
        const bool isNamed = !request.key.empty();
        const bool isSetOrWatch =
            request.operation == Operation::Set || request.operation == Operation::Watch;
        if (request.operation == Operation::Get) {
            Require(answer.error == (answer.value.type != 0 ? 0 : ENOENT), "a value or none");
            CheckContent(request.key, answer);
        } else if (request.operation == Operation::Next) {
            Require(answer.error == (answer.key.empty() ? ENOENT : 0), "a key or none");
            Require(answer.key.empty() || (answer.key > request.key && answer.value.type != 0),
                    "a key behind");
            CheckContent(answer.key, answer);
        } else {
            Require(answer.error == (isSetOrWatch && !isNamed ? EINVAL : 0), "an answer");
        }
        if (request.operation == Operation::Watch && isNamed) {
            Watch& watch = m_watches[request.key];
            if (answer.change > watch.number) {
                watch.number = answer.change;
                watch.content.reset();  // what it is now has not been told yet
            }
            watch.isNewsDue =
                watch.isNewsDue || (request.change != keystore::kFromNow && request.change != answer.change);
        } else if (request.operation == Operation::Unwatch) {
            m_watches.erase(request.key);
        }
    }

    void TakeChange(const Message& change) {
        const auto watch = m_watches.find(change.key);
        Require(watch != m_watches.end(), "a change of a key that is watched");
        Require(change.change >= watch->second.number, "a change that is not older than the one before");
        CheckContent(change.key, change);
        Require(change.change > watch->second.number || !watch->second.content ||
                    *watch->second.content == ContentOf(change),
                "another number for another value");
        watch->second = {change.change, ContentOf(change), false};
    }

    void CheckContent(const std::string& key, const Message& message) const {
        const Content content = ContentOf(message);
        const auto known = m_history.find(key);
        Require(content == Content() ||
                    (known != m_history.end() &&
                     std::find(known->second.begin(), known->second.end(), content) != known->second.end()),
                "a value that was set");
    }

    base::UniqueFd m_socket;
    History& m_history;
    keystore::Receiver m_receiver;
    std::deque<Message> m_sent;  // not answered yet
    std::map<std::string, Watch> m_watches;
    bool m_isCut = false;    // it has sent what ends the connection
    bool m_isEnded = false;  // the connection has ended
};

/// A service on an empty store, and its clients.
class Store {
public:
    explicit Store(const std::string& folder)
        : m_durable(folder + "/durable", folder + "/none", KeyDatabase::Durability::Process),
          m_memory(folder + "/memory", folder + "/none", KeyDatabase::Durability::Process),
          m_server(Listen(), &m_durable, &m_memory, std::nullopt) {}

    void Act(Input& input) {
        std::optional<Peer>& peer = m_peers[input.Below(kPeers)];
        const unsigned action = input.Below(6);
        if (action == 0) {
            peer.reset();
        } else if (action == 1) {
            Serve(input.Byte());
        } else if (action == 2) {
            for (unsigned left = input.Byte(); peer && left > 0 && peer->Take(); --left) {
            }
        } else {
            if (!peer) {
                peer.emplace(m_address, m_addressSize, m_history);
            }
            peer->Send(action == 3 ? input.Text(input.Byte()) : MakeFrame(input, action == 4));
        }
    }

    void CheckEnd() {
        Settle();
        for (std::optional<Peer>& peer : m_peers) {
            if (peer) {
                peer->CheckSettled();
            }
        }
        for (const auto& [key, contents] : m_history) {
            CheckKey(key);
        }
    }

private:
    base::UniqueFd Listen() {
        base::UniqueFd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        // The kernel finds a name, which is no file.
        const bool listens =
            bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(sa_family_t)) == 0 &&
            listen(listener.Get(), 128) == 0 &&
            getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&m_address), &m_addressSize) == 0;
        Require(listens, "a socket");
        return listener;
    }

    static std::string MakeFrame(Input& input, bool isShort) {
        Message request;
        request.operation = static_cast<Operation>(input.Below(8));
        request.key = kKeys[input.Below(kKeyCount)];
        request.value.type = static_cast<int>(input.Below(5));
        request.value.number = static_cast<int>(input.Byte()) - 128;
        request.ticket = input.Byte();
        request.change = static_cast<int>(input.Byte()) - 1;
        if (isShort) {
            request.value.text = input.Text(input.Below(16));
        } else {
            const std::size_t length = 65536 + 1 - input.Byte();
            request.value.text.assign(length, static_cast<char>('a' + input.Below(2)));
        }
        return Pack(request);
    }

    /// False when there was nothing to do.
    bool Serve(unsigned steps) {
        bool isBusy = false;
        for (; steps > 0; --steps) {
            const keystore::Server::Step step = m_server.ServeNext(0);
            Require(step != keystore::Server::Step::Failed, "a service that serves on");
            if (step == keystore::Server::Step::Idle) {
                break;
            }
            isBusy = true;
        }
        return isBusy;
    }

    void Settle() {
        for (bool isBusy = true; isBusy;) {
            isBusy = Serve(1000);
            for (std::optional<Peer>& peer : m_peers) {
                while (peer && peer->Take()) {
                    isBusy = true;
                }
            }
        }
    }

    void CheckKey(const std::string& key) {
        keystore::Row row;
        KeyDatabase& database = key.compare(0, 7, "memory/") == 0 ? m_memory : m_durable;
        Require(database.Get(key, &row), "a key that can be read");
        Message final;
        final.value = row.value;
        final.change = row.change;
        for (std::optional<Peer>& peer : m_peers) {
            if (peer) {
                peer->CheckWatches(key, final);
            }
        }
    }

    sockaddr_un m_address{};
    socklen_t m_addressSize = sizeof(m_address);
    History m_history;
    KeyDatabase m_durable;
    KeyDatabase m_memory;
    keystore::Server m_server;
    std::array<std::optional<Peer>, kPeers> m_peers;
};

/// Empty folders, the same ones each time.
const std::string& EmptyFolder() {
    static const TemporaryFolder folder;
    setenv("ZOL_ROOT", folder.Path().c_str(), 1);
    for (const char* name : {"/durable", "/memory"}) {
        fs::remove_all(folder.Path() + name);
        fs::create_directory(folder.Path() + name);
    }
    return folder.Path();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    Store store(EmptyFolder());
    for (int count = 0; count < kMaxActions && !input.IsEmpty(); ++count) {
        store.Act(input);
    }
    store.CheckEnd();
    return 0;
}
