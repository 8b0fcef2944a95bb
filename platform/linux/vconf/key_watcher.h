#pragma once
#include <glib.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "base/backoff.h"
#include "base/glib_handles.h"
#include "base/unique_fd.h"
#include "vconf/protocol.h"
#include "vconf/watch_registry.h"

namespace keystore {

/// The connection for watches: hears of changes on GLib's default main context. When the service goes away it
/// is looked for again with back-off, and says what has changed meanwhile. Any thread; lives as long as the
/// process.
class KeyWatcher {
public:
    KeyWatcher() = default;
    KeyWatcher(const KeyWatcher&) = delete;
    KeyWatcher& operator=(const KeyWatcher&) = delete;

    /// False with errno when the service refuses. While there is none to ask the watch waits for it, and then
    /// hears of the key as it is.
    [[nodiscard]] bool Add(const std::string& key, vconf_callback_fn callback, void* userData);
    [[nodiscard]] bool Withdraw(const std::string& key, vconf_callback_fn callback, void* userData);

private:
    static gboolean DispatchSource(GSource* source, GSourceFunc callback, gpointer userData);
    static gboolean OnSource(gpointer self);
    static GSourceFuncs s_sourceFunctions;

    void StartSource();
    void DispatchRest();
    void Dispatch();
    [[nodiscard]] bool Ask(const std::string& key, Message* answer);
    [[nodiscard]] bool Connect();
    void Disconnect();
    [[nodiscard]] bool Post(Message* request);
    [[nodiscard]] bool AwaitAnswer(std::uint32_t ticket, Message* answer);
    [[nodiscard]] bool ReceiveWaiting();
    void NoteAnswer(const Message& answer);
    void Take(const Message& message);

    WatchRegistry m_registry;

    std::mutex m_mutex;  // guards everything below; not held while callbacks run
    base::UniqueFd m_socket;
    Receiver m_receiver;
    std::uint64_t m_connections = 0;  // how many there have been
    std::uint32_t m_lastTicket = 0;
    std::vector<Change> m_changes;  // to be delivered, one for each key
    base::GSourcePtr m_source;
    gpointer m_socketTag = nullptr;
    bool m_hasAnswered = false;  // the service, on this connection
    base::Backoff m_backoff;
    std::int64_t m_retryAt = 0;  // monotonic microseconds; while there is no connection
};

}  // namespace keystore
