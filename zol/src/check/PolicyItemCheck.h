#pragma once
/// What is wrong with the single items of a document.
#include <cstddef>
#include <map>
#include <string>

#include "PolicyCheck.h"
#include "PolicyFindings.h"
#include "PolicyObserver.h"
#include "ZOLPolicy.h"

namespace zol {

class TCAttributes;

/// Takes the items in the order of the document. Not thread-safe.
class TCPolicyItemCheck {
public:
    TCPolicyItemCheck(TCPolicyFindings& findings, const TypeOfKey& typeOfKey)
        : m_findings(findings), m_typeOfKey(typeOfKey) {}

    /// @param values of the element, whose numbers are judged as they were written
    void CheckRule(const TSPlace& place, const ZOLVconfMonitor& item, const TCAttributes& values);
    void CheckMonitor(const TSPlace& place, const ZOLPolicyMonitor& item, const TCAttributes& values);

    /// How many of the items so far something would come of.
    [[nodiscard]] std::size_t CountWatched() const { return m_watched; }

private:
    using LineOf = std::map<std::string, unsigned>;

    void m_CheckBounds(const TSPlace& place, const ZOLVconfMonitor& item, const TCAttributes& values);
    void m_CheckRange(const TSPlace& place, const ZOLVconfMonitor& item);
    void m_CheckKey(const TSPlace& place, const ZOLVconfMonitor& item);
    void m_CheckKeyType(const TSPlace& place, const ZOLVconfMonitor& item);
    /// @param first the lines of those before it
    /// @return whether it is the first of its name
    bool m_IsFirstMonitor(const TSPlace& place, const std::string& name, const char* what, LineOf& first);
    void m_CheckCounting(const TSPlace& place, const ZOLPolicyMonitor& item, const TCAttributes& values);
    /// @param gap seconds that lie at least between two events that count
    void m_CheckPeriod(const TSPlace& place, const ZOLPolicyMonitor& item, std::int64_t gap);
    /// @return the seconds
    std::int32_t m_CheckIgnoreTime(const TSPlace& place, const ZOLPolicyMonitor& item);

    TCPolicyFindings& m_findings;
    const TypeOfKey& m_typeOfKey;
    std::size_t m_watched = 0;
    LineOf m_keys;
    LineOf m_installs;  ///< by application id
    LineOf m_pairing;   ///< has one entry at most
};

}  // namespace zol
