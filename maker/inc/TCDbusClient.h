#pragma once
/// The calling side of the maker's IPC.
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
    [[nodiscard]] EResult Call(int functionCode, const std::vector<unsigned char>& request,
                               std::vector<unsigned char>& reply, int timeoutMs);

    /// One line about the last failure; empty when there was none.
    [[nodiscard]] const std::string& LastError() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace zol
