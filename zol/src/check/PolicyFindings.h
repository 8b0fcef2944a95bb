#pragma once
/// The findings of one document while they are made.
#include <cstddef>
#include <string>
#include <vector>

#include "PolicyCheck.h"
#include "PolicyObserver.h"

namespace zol {

/// `text` in quotation marks, cut when it is long.
[[nodiscard]] std::string Quoted(const std::string& text);

/// Bounded, so that no document takes all the memory there is. Not thread-safe.
class TCPolicyFindings {
public:
    void AddError(EPolicyFinding kind, const TSPlace& place, std::string text, std::string hint = {});
    void AddWarning(EPolicyFinding kind, const TSPlace& place, std::string text, std::string hint = {});

    /// All of them in the order of the document. Once.
    [[nodiscard]] std::vector<TSPolicyFinding> Take();

private:
    void m_Add(TSPolicyFinding finding, std::size_t& count);
    void m_TellUnlisted(const char* what, std::size_t count, bool isError);

    std::vector<TSPolicyFinding> m_findings;
    std::size_t m_errors = 0;  ///< those that are not listed included
    std::size_t m_warnings = 0;
    TSPlace m_last;
};

}  // namespace zol
