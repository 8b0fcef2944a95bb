#pragma once
/// The other processes of a benchmark: servers, and watchers that tell what they are notified of.
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace bench {

using Words = std::vector<std::string>;

/// What this program is when it is started as "bench_keys --as ROLE WORDS...". @return its exit status
using Role = int (*)(const Words& words);

/// Makes a role known; for static objects.
class RoleName {
public:
    RoleName(const char* name, Role role);
};

/// For main: plays the role that the command line asks for.
std::optional<int> PlayRole(int argc, char** argv);

/// The folder of this run; a socket's path has room in it.
std::string Folder();

/// A child process that ends with this one.
class Child {
public:
    /// @param tell a descriptor that becomes the child's kTellOn; -1: none
    explicit Child(const Words& command, int tell = -1);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

private:
    pid_t m_pid;
};

/// A watcher tells numbers on this descriptor: kReady, then one for each notification.
constexpr int kTellOn = 3;
constexpr std::int32_t kReady = -1;
void Tell(std::int32_t number);

/// A watching process, which plays a role.
class Watcher {
public:
    Watcher(const std::string& role, const Words& words);
    ~Watcher();
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    /// Waits until the process tells this number.
    void Await(std::int32_t wanted) const;

private:
    int m_ends[2];
    Child m_child;
};

}  // namespace bench
