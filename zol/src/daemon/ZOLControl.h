#pragma once
/// The operations that clients may call.
#include <string>

namespace zol {

class TCPolicyManager;

/// Control operations on top of the policy manager. Stateless; runs on its caller's thread.
class TCControl {
public:
    /// @param manager not owned; must outlive this object
    explicit TCControl(TCPolicyManager& manager);
    virtual ~TCControl() = default;
    TCControl(const TCControl&) = delete;
    TCControl& operator=(const TCControl&) = delete;

    /// Hands a policy to the manager. @return its answer (TCPolicyManager::UpdatePolicy).
    bool SetPolicy(const std::string& xml);

private:
    TCPolicyManager& m_manager;
};

}  // namespace zol
