#pragma once
/// The control operations as native calls of the IPC server.
#include <vector>

#include "ZOLControl.h"

namespace zol {

class IDbus;

/// Serves IControl_FC::SET_POLICY of the server for as long as it lives. Calls run on the server's dispatch
/// thread, and hold it up until the policy is applied; on that thread it is destroyed, too, or when the
/// server dispatches no calls.
class TCControlNative : public TCControl {
public:
    /// @param server must outlive this object
    TCControlNative(IDbus& server, TCPolicyManager& manager);
    ~TCControlNative() override;

    /// Serves one call. False, with no reply bytes, for any code but SET_POLICY and for an empty request.
    /// Throws boost::archive::archive_exception when the request is no archive of a string, is cut short or
    /// announces more bytes than it carries, std::length_error when it carries more than kMaxPolicyBytes;
    /// nothing of the announced size is allocated then. Beside the request one copy of its text is made.
    bool m_OnCallReceived(int code, const std::vector<unsigned char>& in, std::vector<unsigned char>& out);

private:
    bool m_SetPolicy(const std::vector<unsigned char>& in, std::vector<unsigned char>& out);

    IDbus& m_server;
};

}  // namespace zol
