#pragma once
#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "base/unique_fd.h"
#include "vconf/protocol.h"
#include "vconf/service/key_database.h"

namespace keystore {

/// Serves the clients of the store, one request at a time, each client in its turn. A client that does not
/// read holds up nobody: of what it has not taken yet only the keys are kept, and sent as they are once it
/// does.
class Server {
public:
    /// @param listener listens and does not block
    Server(base::UniqueFd listener, KeyDatabase* durable, KeyDatabase* memory, std::optional<gid_t> group);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Returns when nobody has been connected for so long. False with errno when it cannot serve.
    [[nodiscard]] bool Run(int idleMs);

    enum class Step { Done, Idle, Failed };
    /// What Run does again and again: waits so long (-1: for ever) for a client that wants something, and
    /// serves it. Failed leaves errno.
    [[nodiscard]] Step ServeNext(int timeoutMs);

private:
    struct Client {
        base::UniqueFd socket;
        uid_t account = 0;
        std::string answer;                             // the frame that did not fit into the socket
        std::unordered_map<std::string, bool> watches;  // true: the key is in `waiting`
        std::deque<std::string> waiting;                // keys whose changes did not fit into the socket
    };
    struct Account {
        int connections = 0;
        int watches = 0;
    };

    [[nodiscard]] bool Poll(int operation, int socket, std::uint32_t events, Client* client) const;
    void Accept();
    void Serve(Client* client, std::uint32_t events);
    [[nodiscard]] bool Flush(Client* client);
    [[nodiscard]] bool Handle(Client* client, const Message& request);
    int Get(const std::string& key, Message* answer);
    int Next(const std::string& key, Message* answer);
    int Set(Client* client, const Message& request, Row* row);
    int Watch(Client* client, const Message& request, Row* row);
    void Unwatch(Client* client, const std::string& key);
    void Tell(Client* client, const std::string& key, const Row& row);
    void TellWatchers(const std::string& key, const Row& row);
    void Await(const Client& client) const;
    void Close(Client* client);
    void DropWatchersOfReplaced();
    KeyDatabase& DatabaseOf(const std::string& key);

    const base::UniqueFd m_listener;
    KeyDatabase* const m_durable;
    KeyDatabase* const m_memory;
    const std::optional<gid_t> m_group;
    int m_replacements = 0;
    base::UniqueFd m_epoll;
    Receiver m_receiver;
    std::unordered_map<Client*, std::unique_ptr<Client>> m_clients;
    std::unordered_map<uid_t, Account> m_accounts;
    std::unordered_map<std::string, std::unordered_set<Client*>> m_watchers;
};

}  // namespace keystore
