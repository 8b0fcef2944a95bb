#pragma once
/// The maker's IPC server over D-Bus (GDBus). The documents in maker/dbus describe its interfaces.
#include <memory>

#include "IDbus.h"
#include "IPolicyService.h"

namespace zol {

/// Owns the name "org.zol.Daemon1" and serves "/org/zol/Daemon1" on the system bus
/// (DBUS_SYSTEM_BUS_ADDRESS is honoured) or, in test mode, on the session bus. Calls are dispatched on GLib's
/// default main context.
///
/// Construction does not wait for the bus. A bus that is missing, goes away or comes back, and a name that
/// somebody else owns, are each logged once; the server then retries until it serves.
class TCDbusServer : public IDbusServer, public IDbus, public IPolicyServer {
public:
    explicit TCDbusServer(bool testMode);
    /// On the main thread. No handler runs any more once this returns.
    ~TCDbusServer() override;
    TCDbusServer(const TCDbusServer&) = delete;
    TCDbusServer& operator=(const TCDbusServer&) = delete;

    void RegisterNativeCall(int functionCode, NativeCallHandler handler) override;
    int SendNotification(int code, int timeoutMs) override;
    void CancelNotifications() override;
    void ServePolicy(IPolicyService* service) override;
    void TellPolicyChange() override;
    void TellPolicyHit(const TSPolicyHit& hit) override;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace zol
