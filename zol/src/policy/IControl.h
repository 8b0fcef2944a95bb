#pragma once
/// The control interface as it stands on the wire: what a client of the daemon must know to call it.

namespace zol {

/// Function codes of the control interface.
///
/// Request and reply are boost binary archives with their standard header, in the byte order and word size
/// of the machine.
struct IControl_FC {
    enum EFunctionCode_IControl {
        /// Request: one std::string, the XML text of the policy. Reply: one 32-bit signed integer, 1 when the
        /// policy was accepted, else 0.
        SET_POLICY = 4
    };
};

/// Notification codes that the daemon sends to its clients.
enum EControlNotification {
    NOTIFICATION_POWER_OFF = 5  ///< the television is about to go to standby; clients answer when ready
};

}  // namespace zol
