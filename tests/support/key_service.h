#pragma once
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "child_process.h"

/// A connection to the key store's service of a device root without its library; owns nothing when nobody
/// listens.
base::UniqueFd RawConnection(const std::string& root);

/// The key store's service of a device root, for as long as this lives. Begins with an empty store.
class KeyService {
public:
    /// @param root none: this process's ZOL_ROOT
    explicit KeyService(const std::string& root = "");
    ~KeyService();
    KeyService(const KeyService&) = delete;
    KeyService& operator=(const KeyService&) = delete;

    const std::string& Root() const { return m_root; }
    /// Returns when it can be connected to.
    void Start(const std::vector<std::string>& options = {});
    /// With SIGKILL, whoever has started it; returns when it is gone.
    void Kill();

    /// The id of the process that serves, whoever has started it; 0 when none does.
    [[nodiscard]] pid_t Pid() const;
    /// The exit status of the one started last.
    [[nodiscard]] int WaitForEnd();

private:
    const std::string m_root;
    std::optional<child::Process> m_process;
};
