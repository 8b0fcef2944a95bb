#pragma once
/// What the IPC server shows of the policy: the application's side of the D-Bus interface org.zol.Policy1.
#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace zol {

/// Something that is wrong with a policy document, or looks so.
struct TSPolicyRemark {
    std::uint32_t line = 1;
    std::uint32_t column = 1;  ///< in characters
    bool isError = false;      ///< a part of the policy or all of it has no effect; otherwise a warning
    std::string kind;          ///< a word for programs
    std::string text;
    std::string hint;  ///< what to write instead; may be empty
};

/// What became of a policy that was handed over.
struct TSPolicyAnswer {
    bool isAccepted = false;
    std::string outcome;  ///< "running", "stored", "nothing to watch" or "refused"
    std::vector<TSPolicyRemark> remarks;
};

/// A rule that was hit.
struct TSPolicyHit {
    std::int64_t time = 0;  ///< seconds since 1970; 0: there was none
    std::string rule;       ///< key of the rule, or application id, or "pairing"
    std::string value;      ///< the key's value as it is reported; empty for what is no key
    std::string report;     ///< device path of the report's folder
};

/// SHA-256 of documents, hexadecimal; empty: there is none.
struct TSPolicyDigests {
    std::string stored;
    std::string running;
};

/// How the policy stands.
struct TSPolicyState {
    std::string version;  ///< of the daemon
    std::int32_t policyVersion = -1;
    bool isMonitoring = false;
    std::uint32_t rulesWatched = 0;
    std::uint32_t rulesDropped = 0;  ///< items that are not fit to be watched
    std::int64_t since = 0;          ///< when what runs was applied, seconds since 1970; 0: nothing runs
    std::int64_t expires = 0;        ///< seconds since 1970; 0: it has expired, or there is none
    std::uint32_t pathsWaiting = 0;  ///< reports that wait for the collector, the published one not counted
    TSPolicyHit lastHit;
    std::vector<std::string> missingServices;
};

/// One rule of the policy, as names and values that docs/dbus.md lists.
using TSPolicyRule = std::vector<
    std::pair<std::string, std::variant<bool, std::int32_t, std::uint32_t, std::int64_t, std::string>>>;

/// Called on the server's dispatch thread. What is thrown becomes a D-Bus error.
class IPolicyService {
public:
    virtual ~IPolicyService() = default;
    /// Hands a document over, as function code 4 does.
    virtual TSPolicyAnswer SetPolicy(const std::string& document) = 0;
    /// Looks at a document and changes nothing.
    virtual std::vector<TSPolicyRemark> Check(const std::string& document) = 0;
    /// The rules of what runs that look at this key; all rules for an empty one.
    virtual std::vector<TSPolicyRule> Explain(const std::string& key) = 0;
    virtual TSPolicyState State() = 0;
    /// Reads the stored document.
    virtual TSPolicyDigests Digests() = 0;
};

/// The server as the one who shows the policy. On the dispatch thread.
class IPolicyServer {
public:
    virtual ~IPolicyServer() = default;
    /// Serves org.zol.Policy1 from now on with `service`, not owned; null: no more.
    virtual void ServePolicy(IPolicyService* service) = 0;
    /// Tells whoever listens which properties are others than when it was told last.
    virtual void TellPolicyChange() = 0;
    /// Tells whoever listens of a hit. Any thread.
    virtual void TellPolicyHit(const TSPolicyHit& hit) = 0;
};

}  // namespace zol
