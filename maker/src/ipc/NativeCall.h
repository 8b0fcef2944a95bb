#pragma once
/// A call of a function code, apart from the message that brought it.
#include <cstddef>
#include <string>
#include <vector>

#include "Gio.h"

namespace zol::ipc {

/// Takes the request out of its message, which may be megabytes and can go as soon as nobody refers to the
/// invocation any more, and keeps what an answer needs. Any thread, one at a time.
class NativeCall {
public:
    /// Takes the invocation over. It is that of `Call(i code, ay request)`.
    explicit NativeCall(GDBusMethodInvocation* invocation);

    [[nodiscard]] int Code() const { return m_code; }
    /// Whether the request is longer than kMaxMessageBytes; it was not read then.
    [[nodiscard]] bool IsTooLong() const { return m_isTooLong; }
    [[nodiscard]] const std::vector<unsigned char>& Request() const { return m_request; }

    /// Answers. Nothing is sent when the caller asked for no reply, or is gone.
    void Return(bool handled, const std::vector<unsigned char>& reply);
    /// Answers with a D-Bus error. Bytes of `message` that are not UTF-8 are replaced.
    void ReturnError(const char* name, const std::string& message);

private:
    void Send(GDBusMessage* answer);

    int m_code = 0;
    bool m_isTooLong = false;
    std::vector<unsigned char> m_request;
    GConnectionPtr m_connection;
    base::GObjectPtr<GDBusMessage> m_call;  ///< who called and under which serial number, without a body
};

}  // namespace zol::ipc
