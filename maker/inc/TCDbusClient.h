#pragma once
/// The client side of the maker's IPC.
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zol {

/// One connection to the daemon. Not thread-safe: one thread at a time.
class TCDbusClient {
public:
    /// How a call ended.
    enum class EResult {
        HANDLED,     ///< the handler took the call; `reply` is filled
        REFUSED,     ///< no handler, or the handler returned false
        FAILED,      ///< the daemon answered with an error; LastError() says which
        UNREACHABLE  ///< no bus, no daemon, no permission or no answer in time; LastError() says why
    };

    /// @param testMode session bus instead of system bus, like the server's.
    explicit TCDbusClient(bool testMode);
    ~TCDbusClient();
    TCDbusClient(const TCDbusClient&) = delete;
    TCDbusClient& operator=(const TCDbusClient&) = delete;

    /// Calls a function code and waits at most `timeoutMs` (-1: without limit). Connects when needed.
    EResult Call(int functionCode, const std::vector<unsigned char>& request,
                 std::vector<unsigned char>& reply, int timeoutMs);

    /// Subscribes for notifications: `handler` gets each code, on the thread that iterates the thread-default
    /// main context of the caller, and returns whether it replies (false answers with an error). False when
    /// the daemon cannot be reached.
    bool Subscribe(std::function<bool(int code)> handler);
    void Unsubscribe();

    /// One line about the last failure; empty when there was none.
    const std::string& LastError() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace zol
