#pragma once
/// The control operations as native calls of the IPC server.
#include <vector>

#include "ZOLControl.h"

namespace zol {

class IDbus;

/// Registers IControl_FC::SET_POLICY with the server for good: the server must not dispatch a call any more
/// once this object is gone. Calls run on the server's dispatch thread, and hold it up until the policy is
/// applied.
class TCControlNative : public TCControl {
public:
    TCControlNative(IDbus& server, TCPolicyManager& manager);

    /// Serves one call. False, with no reply bytes, for any code but SET_POLICY and for an empty request.
    /// Throws boost::archive::archive_exception when the request is no archive of a string, is cut short,
    /// announces more bytes than it carries, or carries more than kMaxPolicyBytes; nothing of the announced
    /// size is allocated then. Beside the request one copy of its text is made.
    bool m_OnCallReceived(int code, const std::vector<unsigned char>& in, std::vector<unsigned char>& out);

private:
    bool m_SetPolicy(const std::vector<unsigned char>& in, std::vector<unsigned char>& out);
};

}  // namespace zol
