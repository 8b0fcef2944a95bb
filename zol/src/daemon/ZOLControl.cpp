#include "ZOLControl.h"

#include "Log.h"
#include "ZOLPolicyManager.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCControl";

}  // namespace

TCControl::TCControl(TCPolicyManager& manager) : m_manager(manager) {}

bool TCControl::SetPolicy(const std::string& xml) {
    ZOL_LOG(LOG_DEBUG, "Policy set api invoked");
    return m_manager.UpdatePolicy(xml);
}

}  // namespace zol
