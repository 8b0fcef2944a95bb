#pragma once
/// A television without one: the daemon's own parts on the fakes of the platform.
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "IPolicyService.h"
#include "scenario.h"

namespace policytest {

/// What the hits of the remote are called.
constexpr const char* kPairing = "pairing";

/// One in the life of a process, on its main thread; no other threads but the daemon's. Every operation
/// returns when all that comes of it is done: all threads of the daemon sleep until time passes. An exception
/// means that they do not come to rest.
///
/// What is reported is collected at once.
class Device {
public:
    /// @param start the wall clock, seconds since 1970
    explicit Device(std::int64_t start);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    void Start();
    /// The daemon ends. Keys, files and the stored policy stay.
    void Stop();
    void SwitchOff(std::chrono::seconds time);
    void StandBy(std::chrono::seconds time);

    /// As over D-Bus.
    zol::TSPolicyAnswer SetPolicy(const std::string& document);
    [[nodiscard]] zol::TSPolicyState State();
    [[nodiscard]] std::vector<zol::TSPolicyRule> Explain();

    /// What a monitor has counted.
    struct Count {
        std::string rule;  ///< the id of an application, or "pairing"
        int counted;
        int repetition;
        std::int64_t periodStart;  ///< seconds since 1970
    };
    [[nodiscard]] std::vector<Count> Counts() const;

    void SetKey(const std::string& key, const KeyValue& value);
    [[nodiscard]] static KeyValue Key(const std::string& key);
    /// @param address empty: of the remote that connected last
    void Connect(bool isConnected, const std::string& address);
    void Install(const std::string& id, bool isInstalled);

    void Pass(std::chrono::nanoseconds time);
    /// The wall clock only; who waits for a moment of it is told when it has come.
    void SetClock(std::int64_t seconds);
    /// The wall clock, seconds since 1970.
    [[nodiscard]] static std::int64_t Now();

private:
    struct Daemon;

    void Rest();
    bool Collect();

    const int m_otherThreads;  ///< of the process, that are not the daemon's
    std::unique_ptr<Daemon> m_daemon;
    std::set<std::string> m_memoryKeys;  ///< that were set
};

}  // namespace policytest
