#include "vconf/key_watcher.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <limits>
#include <utility>

#include "guarded.h"
#include "platform_log.h"
#include "vconf/service_socket.h"

namespace keystore {
namespace {

// What arrives is delivered in portions, so that other sources of the context have their turn.
constexpr int kMaxAtOnce = 256;

}  // namespace

GSourceFuncs KeyWatcher::s_sourceFunctions = {nullptr, nullptr, &KeyWatcher::DispatchSource,
                                              nullptr, nullptr, nullptr};

bool KeyWatcher::Add(const std::string& key, vconf_callback_fn callback, void* userData) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    StartSource();
    Message answer;
    const bool isAnswered = Ask(key, &answer);
    if (isAnswered ? answer.error != 0 : errno == EACCES) {
        DispatchRest();
        errno = isAnswered ? answer.error : EACCES;
        return false;
    }
    // Without a service: all that the next connection brings.
    const Position start{m_connections,
                         isAnswered ? answer.change : std::numeric_limits<std::int64_t>::max()};
    m_registry.Add(key, callback, userData, start, isAnswered ? answer.change : kNeverChanged);
    DispatchRest();
    return true;
}

/// Has the source dispatched for what a request left behind: changes it has met, or a connection it has lost.
void KeyWatcher::DispatchRest() {
    if (!m_socket || !m_changes.empty()) {
        g_source_set_ready_time(m_source.get(), m_socket ? 0 : m_retryAt);
    }
}

/// Begins to watch a key. False, with errno, when no service answers.
bool KeyWatcher::Ask(const std::string& key, Message* answer) {
    errno = EIO;
    // The service may have ended since the last time.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!m_socket && (g_get_monotonic_time() < m_retryAt || !Connect())) {
            return false;
        }
        Message request;
        request.operation = Operation::Watch;
        request.key = key;
        request.change = kFromNow;
        if (Post(&request) && AwaitAnswer(request.ticket, answer)) {
            return true;
        }
        errno = EIO;
    }
    return false;
}

bool KeyWatcher::Withdraw(const std::string& key, vconf_callback_fn callback, void* userData) {
    // Not under the lock: it waits for a callback, which may watch keys.
    if (!m_registry.Withdraw(key, callback, userData)) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_registry.Has(key) && m_socket) {
        Message request;
        request.operation = Operation::Unwatch;
        request.key = key;
        static_cast<void>(Post(&request));  // a connection that is lost watches nothing
        DispatchRest();
    }
    return true;
}

void KeyWatcher::StartSource() {
    if (m_source == nullptr) {
        m_source.reset(g_source_new(&s_sourceFunctions, sizeof(GSource)));
        g_source_set_name(m_source.get(), "key store");
        g_source_set_callback(m_source.get(), &KeyWatcher::OnSource, this, nullptr);
        g_source_attach(m_source.get(), nullptr);
    }
}

gboolean KeyWatcher::DispatchSource(GSource*, GSourceFunc callback, gpointer userData) {
    return callback(userData);
}

gboolean KeyWatcher::OnSource(gpointer self) {
    platform::Guarded("watching keys", [&] { static_cast<KeyWatcher*>(self)->Dispatch(); });
    return G_SOURCE_CONTINUE;
}

void KeyWatcher::Dispatch() {
    std::vector<Change> changes;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_socket && !ReceiveWaiting()) {
            Disconnect();
        } else if (!m_socket && !m_registry.IsEmpty() && g_get_monotonic_time() >= m_retryAt) {
            static_cast<void>(Connect());  // tried again when m_retryAt has come
        }
        changes.swap(m_changes);
        g_source_set_ready_time(m_source.get(), m_socket || m_registry.IsEmpty() ? -1 : m_retryAt);
    }
    for (const Change& change : changes) {
        m_registry.Deliver(change);
    }
}

/// Also asks for what has changed since the last connection. False with errno.
bool KeyWatcher::Connect() {
    m_socket = ConnectToService();
    if (!m_socket) {
        const int error = errno;
        Disconnect();
        errno = error;
        return false;
    }
    ++m_connections;
    m_socketTag = g_source_add_unix_fd(m_source.get(), m_socket.Get(), G_IO_IN);
    for (auto next = m_registry.Next(""); next; next = m_registry.Next(next->first)) {
        Message request;
        request.operation = Operation::Watch;
        request.key = next->first;
        request.change = next->second;
        if (!Post(&request)) {
            return false;
        }
    }
    return true;
}

/// Plans the next attempt: at once, unless this one has failed.
void KeyWatcher::Disconnect() {
    if (m_socketTag != nullptr) {
        g_source_remove_unix_fd(m_source.get(), m_socketTag);
        m_socketTag = nullptr;
    }
    m_socket.Reset();
    const unsigned waitMs = m_hasAnswered ? 0 : m_backoff.Next();
    m_retryAt = g_get_monotonic_time() + std::int64_t{waitMs} * 1000;
    m_hasAnswered = false;
}

/// Sends a request, and receives meanwhile what would stand in its way. False when the connection is lost.
bool KeyWatcher::Post(Message* request) {
    request->ticket = ++m_lastTicket;
    const std::string frame = Pack(*request);
    for (;;) {
        const Transfer sent = SendFrame(m_socket.Get(), frame, MSG_DONTWAIT);
        // That the peer is gone shows when the answer is received, and with it the reason.
        if (sent == Transfer::Done || (sent == Transfer::Broken && (errno == EPIPE || errno == ECONNRESET))) {
            return true;
        }
        pollfd change{m_socket.Get(), POLLIN | POLLOUT, 0};
        if (sent == Transfer::Broken || poll(&change, 1, kPatienceMs) <= 0 || !ReceiveWaiting()) {
            Disconnect();
            return false;
        }
    }
}

/// False when the connection is lost.
bool KeyWatcher::AwaitAnswer(std::uint32_t ticket, Message* answer) {
    while (m_receiver.Receive(m_socket.Get(), answer) == Transfer::Done) {
        if (answer->operation == Operation::Answer && (answer->ticket == ticket || answer->ticket == 0)) {
            NoteAnswer(*answer);
            return true;
        }
        Take(*answer);
    }
    Disconnect();
    return false;
}

bool KeyWatcher::ReceiveWaiting() {
    Message message;
    Transfer received = Transfer::Done;
    for (int count = 0; count < kMaxAtOnce && received == Transfer::Done; ++count) {
        received = m_receiver.Receive(m_socket.Get(), &message, MSG_DONTWAIT);
        if (received == Transfer::Done) {
            Take(message);
        }
    }
    return received != Transfer::Broken;
}

/// A service that refuses to talk has read no request.
void KeyWatcher::NoteAnswer(const Message& answer) {
    if (answer.ticket != 0) {
        m_hasAnswered = true;
        m_backoff.Reset();
    }
}

void KeyWatcher::Take(const Message& message) {
    if (message.operation == Operation::Answer) {
        if (message.error != 0) {
            PLATFORM_LOG(ERROR, "key store: \"%s\" is not watched any more: %s", message.key.c_str(),
                         g_strerror(message.error));
        }
        NoteAnswer(message);
        return;
    }
    Change change{{m_connections, message.change}, message.key, message.value};
    const bool isWatched = m_registry.Update(message.key, [&](Arrived* arrived) {
        if (arrived->pending < m_changes.size() && m_changes[arrived->pending].key == message.key) {
            m_changes[arrived->pending] = std::move(change);
        } else {
            arrived->pending = static_cast<std::uint32_t>(m_changes.size());
            m_changes.push_back(std::move(change));
        }
        arrived->change = message.change;
    });
    static_cast<void>(isWatched);  // withdrawn meanwhile: nobody asks for it
}

}  // namespace keystore
