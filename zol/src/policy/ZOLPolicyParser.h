#pragma once
/// Turns the text of a policy into a ZOLPolicy.
#include <cstddef>
#include <functional>
#include <map>
#include <string>

#include "ZOLPolicy.h"

namespace zol {

class TCAttributes;
class TCElements;

/// The longest policy text that is parsed, stored or read back, in bytes: about a hundred thousand items.
constexpr std::size_t kMaxPolicyBytes = std::size_t{16} * 1024 * 1024;

/// The most entity and attribute declarations that a document's own DTD may make. It bounds how deep the
/// expansion of entities inside entities can go.
constexpr int kMaxDeclarations = 100;

/// The most attributes that one element may have, those that the DTD gives it included.
constexpr int kMaxAttributes = 1000;

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
    /// False, with the reason logged, when the text is malformed, longer than kMaxPolicyBytes, declares
    /// more than kMaxDeclarations, gives an element more than kMaxAttributes, or holds more than twice
    /// kMaxPolicyBytes of attributes, items and open elements, when the XML library would need more than four
    /// times kMaxPolicyBytes of memory to read it, and when memory runs out. `policy` then holds
    /// what was read so far. Throws nothing from inside expat.
    bool Parse(const std::string& xml, ZOLPolicy& policy) const;

private:
    using StartHandler = std::function<void(ZOLPolicy&, const TCAttributes&)>;
    using DataHandler = std::function<void(ZOLPolicy&, const TCElements&)>;
    struct TSParseContext;
    struct TSCallbacks;

    static void m_HandleMonitorInfoTag(ZOLPolicy& policy, const TCAttributes& attributes);
    static void m_HandleZolsTag(ZOLPolicy& policy, const TCAttributes& attributes);
    static void m_HandleDurationTag(ZOLPolicy& policy, const TCAttributes& attributes);
    static void m_HandleMonitorTag(ZOLPolicy& policy, const TCAttributes& attributes);

    // Both keyed by the tag in lower case.
    std::map<std::string, StartHandler> m_startHandlers;
    std::map<std::string, DataHandler> m_dataHandlers;
};

}  // namespace zol
