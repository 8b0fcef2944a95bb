#pragma once
/// The D-Bus interface org.zol.Policy1 on the daemon's object.
#include <memory>
#include <mutex>

#include "Gio.h"
#include "IPolicyService.h"

namespace zol::ipc {

/// Serves the interface on at most one connection at a time. A property is asked of the service when a client
/// asks for it; nothing is kept here but what was told last. All but TellHit on the thread that dispatches
/// GLib's default main context.
class PolicyObject {
public:
    PolicyObject();
    ~PolicyObject();
    PolicyObject(const PolicyObject&) = delete;
    PolicyObject& operator=(const PolicyObject&) = delete;

    /// Not owned; null: the interface goes.
    void Serve(IPolicyService* service);
    /// Offers the interface on this connection while there is a service. A failure is logged.
    void Offer(GDBusConnection* connection);
    /// Lets go of the connection.
    void Withdraw();

    /// PropertiesChanged with those that are others than when it was sent last; nothing without a service.
    void TellChange();
    /// Any thread.
    void TellHit(const TSPolicyHit& hit);

private:
    struct Skeleton;
    friend struct Skeleton;

    void Export();
    void Unexport();
    void Emit(const char* interface, const char* signal, GVariant* parameters);

    base::GObjectPtr<GDBusInterfaceSkeleton> m_skeleton;
    GConnectionPtr m_connection;
    IPolicyService* m_service = nullptr;
    std::mutex m_mutex;           // m_exportedOn
    GConnectionPtr m_exportedOn;  // null: not exported
    base::GVariantPtr m_told;     // a{sv}
};

}  // namespace zol::ipc
