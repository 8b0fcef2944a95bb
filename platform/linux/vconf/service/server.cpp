#include "vconf/service/server.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "vconf.h"
#include "vconf/service/access.h"
#include "vconf/service/quotas.h"
#include "vconf/store_paths.h"

namespace keystore {
namespace {

std::string FrameOf(const std::string& key, const Row& row) {
    Message message;
    message.operation = Operation::Changed;
    message.change = row.change;
    message.key = key;
    message.value = row.value;
    return Pack(message);
}

/// Says why before the connection is closed.
void Refuse(int socket, int error) {
    Message answer;
    answer.error = error;
    static_cast<void>(
        SendFrame(socket, Pack(answer), MSG_DONTWAIT));  // the end of the connection says it, too
}

}  // namespace

Server::Server(base::UniqueFd listener, KeyDatabase* durable, KeyDatabase* memory, std::optional<gid_t> group)
    : m_listener(std::move(listener)), m_durable(durable), m_memory(memory), m_group(group) {}

bool Server::Run(int idleMs) {
    Step step = Step::Done;
    while (step == Step::Done) {
        step = ServeNext(m_clients.empty() ? idleMs : -1);
    }
    return step == Step::Idle;
}

Server::Step Server::ServeNext(int timeoutMs) {
    if (!m_epoll) {
        m_epoll.Reset(epoll_create1(EPOLL_CLOEXEC));
        if (!Poll(EPOLL_CTL_ADD, m_listener.Get(), EPOLLIN, nullptr)) {
            return Step::Failed;
        }
    }
    DropWatchersOfReplaced();
    // One at a time: what is done for one client may close another.
    epoll_event event{};
    const int count = epoll_wait(m_epoll.Get(), &event, 1, timeoutMs);
    if (count < 0) {
        return errno == EINTR ? Step::Done : Step::Failed;
    }
    if (count == 0) {
        return Step::Idle;
    }
    if (event.data.ptr == nullptr) {
        Accept();
    } else {
        Serve(static_cast<Client*>(event.data.ptr), event.events);
    }
    return Step::Done;
}

bool Server::Poll(int operation, int socket, std::uint32_t events, Client* client) const {
    epoll_event event{};
    event.events = events;
    event.data.ptr = client;
    return epoll_ctl(m_epoll.Get(), operation, socket, &event) == 0;
}

void Server::Accept() {
    auto client = std::make_unique<Client>();
    client->socket.Reset(accept4(m_listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!client->socket) {
        return;
    }
    const Peer peer = PeerOf(client->socket.Get(), m_group);
    if (!peer.isAllowed) {
        Refuse(client->socket.Get(), EACCES);
        return;
    }
    const auto account = m_accounts.find(peer.account);
    const bool isFull = peer.account != 0 && m_clients.size() >= kMaxClients;
    if (isFull || (account != m_accounts.end() && account->second.connections >= kMaxConnections)) {
        Refuse(client->socket.Get(), EDQUOT);
        return;
    }
    client->account = peer.account;
    if (Poll(EPOLL_CTL_ADD, client->socket.Get(), EPOLLIN, client.get())) {
        ++m_accounts[peer.account].connections;
        Client* const key = client.get();
        m_clients.emplace(key, std::move(client));
    }
}

void Server::Serve(Client* client, std::uint32_t events) {
    bool isUp = true;
    if (!client->answer.empty() || !client->waiting.empty()) {
        isUp = (events & (EPOLLHUP | EPOLLERR)) == 0 && Flush(client);
    }
    if (isUp && client->answer.empty() && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
        Message request;
        const Transfer received = m_receiver.Receive(client->socket.Get(), &request);
        isUp = received == Transfer::WouldBlock || (received == Transfer::Done && Handle(client, request));
    }
    if (isUp) {
        Await(*client);
    } else {
        Close(client);
    }
}

/// Sends what has waited, as far as it fits. False when the connection is to be closed.
bool Server::Flush(Client* client) {
    if (!client->answer.empty()) {
        const Transfer sent = SendFrame(client->socket.Get(), client->answer);
        if (sent != Transfer::Done) {
            return sent == Transfer::WouldBlock;
        }
        client->answer.clear();
    }
    while (!client->waiting.empty()) {
        const std::string& key = client->waiting.front();
        const auto watch = client->watches.find(key);
        if (watch != client->watches.end()) {
            Row row;
            if (!DatabaseOf(key).Get(key, &row)) {
                return false;
            }
            const Transfer sent = SendFrame(client->socket.Get(), FrameOf(key, row));
            if (sent != Transfer::Done) {
                return sent == Transfer::WouldBlock;
            }
            watch->second = false;
        }
        client->waiting.pop_front();
    }
    return true;
}

/// False when the connection is to be closed.
bool Server::Handle(Client* client, const Message& request) {
    Message answer;
    answer.ticket = request.ticket;
    Row row;
    bool isNews = false;
    switch (request.operation) {
        case Operation::Get:
            answer.error = Get(request.key, &answer);
            break;
        case Operation::Next:
            answer.error = Next(request.key, &answer);
            break;
        case Operation::Set:
            answer.error = Set(client, request, &row);
            answer.change = row.change;
            break;
        case Operation::Watch:
            answer.error = Watch(client, request, &row);
            answer.change = row.change;
            isNews = answer.error == 0 && request.change != kFromNow && request.change != row.change;
            break;
        case Operation::Unwatch:
            Unwatch(client, request.key);
            break;
        default:
            return false;
    }
    std::string frame = Pack(answer);
    const Transfer sent = SendFrame(client->socket.Get(), frame);
    if (sent == Transfer::WouldBlock) {
        client->answer = std::move(frame);
    }
    if (isNews) {
        Tell(client, request.key, row);
    }
    if (request.operation == Operation::Set && row.change != kNeverChanged) {
        TellWatchers(request.key, row);
    }
    return sent != Transfer::Broken;
}

void Server::TellWatchers(const std::string& key, const Row& row) {
    const auto watchers = m_watchers.find(key);
    if (watchers != m_watchers.end()) {
        for (Client* const watcher : watchers->second) {
            Tell(watcher, key, row);
        }
    }
}

int Server::Get(const std::string& key, Message* answer) {
    Row row;
    if (!DatabaseOf(key).Get(key, &row)) {
        return EIO;
    }
    answer->value = std::move(row.value);
    answer->change = row.change;
    return answer->value.type != VCONF_TYPE_NONE ? 0 : ENOENT;
}

int Server::Next(const std::string& key, Message* answer) {
    std::string durable;
    std::string volatileKey;
    if (!m_durable->Next(key, &durable) || !m_memory->Next(key, &volatileKey)) {
        return EIO;
    }
    const bool isDurable = volatileKey.empty() || (!durable.empty() && durable < volatileKey);
    answer->key = std::move(isDurable ? durable : volatileKey);
    return answer->key.empty() ? ENOENT : Get(answer->key, answer);
}

/// An errno or 0; without a change `row` says so.
int Server::Set(Client* client, const Message& request, Row* row) {
    const std::string& key = request.key;
    KeyDatabase& database = DatabaseOf(key);
    Row old;
    if (key.empty()) {
        return EINVAL;
    }
    if (!database.Get(key, &old)) {
        return EIO;
    }
    Row changed{request.value, kNeverChanged, client->account};
    if (changed.value.type != VCONF_TYPE_INT && changed.value.type != VCONF_TYPE_BOOL) {
        changed.value.number = 0;  // no part of the value: who watches is told what a get finds
    }
    if (changed.value.type == VCONF_TYPE_NONE) {
        if (old.value.type == VCONF_TYPE_NONE) {
            return 0;
        }
    } else {
        Usage usage = m_durable->UsageOf(client->account);
        const Usage memory = m_memory->UsageOf(client->account);
        usage.keys += memory.keys + 1;
        usage.bytes += memory.bytes + static_cast<std::int64_t>(key.size() + changed.value.text.size());
        if (old.value.type != VCONF_TYPE_NONE && old.owner == client->account) {
            usage.keys -= 1;
            usage.bytes -= static_cast<std::int64_t>(key.size() + old.value.text.size());
        }
        if (usage.keys > kMaxKeys || usage.bytes > kMaxKeyStoreBytes) {
            return EDQUOT;
        }
    }
    if (!database.Set(key, old, &changed)) {
        return EIO;
    }
    *row = std::move(changed);
    return 0;
}

int Server::Watch(Client* client, const Message& request, Row* row) {
    const std::string& key = request.key;
    Account& account = m_accounts[client->account];
    if (key.empty()) {
        return EINVAL;
    }
    if (!DatabaseOf(key).Get(key, row)) {
        return EIO;
    }
    if (client->watches.count(key) > 0) {
        return 0;
    }
    if (account.watches >= kMaxWatches) {
        return EDQUOT;
    }
    client->watches.emplace(key, false);
    m_watchers[key].insert(client);
    ++account.watches;
    return 0;
}

void Server::Unwatch(Client* client, const std::string& key) {
    if (client->watches.erase(key) == 0) {
        return;
    }
    --m_accounts[client->account].watches;
    const auto watchers = m_watchers.find(key);
    watchers->second.erase(client);
    if (watchers->second.empty()) {
        m_watchers.erase(watchers);
    }
}

/// A change goes at once if it can, else behind those that wait; of several changes of a key the last one
/// waits.
void Server::Tell(Client* client, const std::string& key, const Row& row) {
    bool& waits = client->watches.at(key);
    if (waits) {
        return;
    }
    // What cannot be sent for another reason waits, too: a connection that is broken is closed when it is its
    // turn, and one that is not must not miss it.
    if (!client->waiting.empty() || SendFrame(client->socket.Get(), FrameOf(key, row)) != Transfer::Done) {
        waits = true;
        client->waiting.push_back(key);
        Await(*client);
    }
}

/// What the loop wakes up for: while an answer waits no request is read.
void Server::Await(const Client& client) const {
    const std::uint32_t in = client.answer.empty() ? EPOLLIN : 0U;
    const std::uint32_t out = client.answer.empty() && client.waiting.empty() ? 0U : EPOLLOUT;
    static_cast<void>(Poll(EPOLL_CTL_MOD, client.socket.Get(), in | out, const_cast<Client*>(&client)));
}

void Server::Close(Client* client) {
    while (!client->watches.empty()) {
        Unwatch(client, std::string(client->watches.begin()->first));
    }
    const auto account = m_accounts.find(client->account);
    if (--account->second.connections == 0) {
        m_accounts.erase(account);
    }
    m_clients.erase(client);
}

/// The numbers that they know are of another store: those who connect anew hear of what is different.
void Server::DropWatchersOfReplaced() {
    const int replacements = m_durable->Replacements() + m_memory->Replacements();
    if (replacements == std::exchange(m_replacements, replacements)) {
        return;
    }
    std::vector<Client*> watchers;
    for (const auto& [client, owner] : m_clients) {
        if (!client->watches.empty()) {
            watchers.push_back(client);
        }
    }
    for (Client* const client : watchers) {
        Close(client);
    }
}

KeyDatabase& Server::DatabaseOf(const std::string& key) {
    return key.compare(0, std::strlen(kMemoryPrefix), kMemoryPrefix) == 0 ? *m_memory : *m_durable;
}

}  // namespace keystore
