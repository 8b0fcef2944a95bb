#pragma once
/// Turns the text of a policy into a ZOLPolicy.
#include <map>
#include <optional>
#include <string>

#include "ZOLPolicy.h"

namespace zol {

class IPolicyObserver;
enum class EPolicyRefusal;
class TCAttributes;
class TCElements;

/// Reads the four tags that mean something (zolitem, zols, zol_expired_time, monitor) wherever they stand;
/// every other element and all text is passed over. Tag and attribute names may be spelled in any case.
/// Values are taken as they are: whether an item makes sense is for PolicyValidation.h.
///
/// Parse is const and may run on several threads at once.
class TCPolicyParser {
public:
    TCPolicyParser();
    TCPolicyParser(const TCPolicyParser&) = delete;
    TCPolicyParser& operator=(const TCPolicyParser&) = delete;

    /// Parses the whole text into `policy`, which should be freshly initialised: only its vconf items are
    /// emptied first. A text that merely ends too early is no error; what stood before the cut is kept.
    ///
    /// False, with the reason logged, when the text is malformed, longer than kMaxPolicyBytes, or beyond the
    /// budget of a document (ParseBudget.h), and when memory runs out. `policy` then holds what was read so
    /// far. Throws nothing from inside expat.
    ///
    /// @param observer is told of all that is read and of what is wrong with it; then nothing is logged. Null
    ///        for none.
    [[nodiscard]] bool Parse(const std::string& xml, ZOLPolicy& policy,
                             IPolicyObserver* observer = nullptr) const;
    /// The same for who does something about the reason; none when the text was taken.
    [[nodiscard]] std::optional<EPolicyRefusal> FindRefusal(const std::string& xml, ZOLPolicy& policy,
                                                            IPolicyObserver* observer = nullptr) const;

private:
    using StartHandler = void (*)(ZOLPolicy&, const TCAttributes&, bool isLogged);
    using DataHandler = void (*)(ZOLPolicy&, const TCElements&);
    struct TSParseContext;
    struct TSCallbacks;

    static void m_HandleMonitorInfoTag(ZOLPolicy& policy, const TCAttributes& attributes, bool isLogged);
    static void m_HandleZolsTag(ZOLPolicy& policy, const TCAttributes& attributes, bool isLogged);
    static void m_HandleDurationTag(ZOLPolicy& policy, const TCAttributes& attributes, bool isLogged);
    static void m_HandleMonitorTag(ZOLPolicy& policy, const TCAttributes& attributes, bool isLogged);

    // Both keyed by the tag in lower case.
    std::map<std::string, StartHandler> m_startHandlers;
    std::map<std::string, DataHandler> m_dataHandlers;
};

}  // namespace zol
