#pragma once
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "key_service.h"
#include "log_lines.h"
#include "vconf.h"

/// A key store of its own below this process's ZOL_ROOT, and a running service for it.
class KeyStoreTest : public testing::Test {
protected:
    KeyService& Service() { return m_service; }

    static bool SetInt(const std::string& key, int value) { return vconf_set_int(key.c_str(), value) == 0; }
    /// -1 when there is no such int.
    static int GetInt(const std::string& key);
    /// The whole answer, such as "str text"; "none" when there is no such key.
    static std::string Get(const std::string& key);

    static std::string Root();
    static std::string DurableFolder() { return Root() + "/var/lib/zol/vconfd"; }
    static std::string MemoryFolder() { return Root() + "/run/zol/vconfd"; }
    static std::string Database() { return DurableFolder() + "/vconf.db"; }
    static std::string OldFolder() { return Root() + "/var/lib/zol/vconf"; }

    /// Runs vconf_... calls in another process: {"int", key, value}, {"str", key, value}, {"bool", key,
    /// value},
    /// {"unset", key}, {"get", key}. @return what it printed: one line per call
    static std::string InAnotherProcess(const std::vector<std::string>& calls);

    /// Lines that the service and the clients logged since the test began.
    const PlatformLog& Log() const { return m_log; }

private:
    PlatformLog m_log;
    KeyService m_service;
};

/// Watches keys as long as it lives, counts the calls and keeps the last one.
class Heard {
public:
    Heard() = default;
    ~Heard();
    Heard(const Heard&) = delete;
    Heard& operator=(const Heard&) = delete;

    bool Watch(const std::string& key);
    bool Withdraw(const std::string& key);

    int calls = 0;
    std::string key;
    int type = -1;
    int number = 0;
    std::string text;

    static void Callback(keynode_t* node, void* self);

private:
    std::vector<std::string> m_keys;  // one entry for each registration
};
