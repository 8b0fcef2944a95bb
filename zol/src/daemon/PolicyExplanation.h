#pragma once
/// Why the rules that run were hit or were not.
#include <cstdint>
#include <string>
#include <vector>

#include "IPolicyService.h"

namespace zol {

class TCPolicyTasks;

/// Appends the rules of a set of tasks that look at `key`, all of them for an empty one. Reads each rule's
/// key from the store. On the thread that dispatches calls.
/// @param set number of the set, from 1
void ExplainRules(const TCPolicyTasks& tasks, std::uint32_t set, const std::string& key,
                  std::vector<TSPolicyRule>& rules);

}  // namespace zol
