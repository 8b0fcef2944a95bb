#pragma once
#include <glib.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "log_lines.h"
#include "temporary_folder.h"
#include "vconf.h"
#include "vconf/key_store.h"

/// A key store in a root folder of its own, told about changes through a main context of its own. Other
/// processes reach it with the folder as their ZOL_ROOT.
class KeyStoreTest : public testing::Test {
protected:
    KeyStoreTest();
    ~KeyStoreTest() override;

    keystore::KeyStore& Store() { return *m_store; }
    /// As after a restart of this process.
    void Reopen();

    bool SetInt(const std::string& key, int value) {
        return Store().Set(key.c_str(), {VCONF_TYPE_INT, value, {}});
    }
    /// -1 when there is no such int.
    int GetInt(const std::string& key);

    /// Serves the context until the condition holds; false after a long time.
    bool ServeUntil(const std::function<bool()>& condition);
    /// Serves what is there without waiting.
    void ServePending();
    /// Serves until nothing is left that would wake the context by itself.
    bool ServeUntilIdle();

    const std::string& Root() const { return m_folder.Path(); }
    std::string DurableFolder() const { return Root() + "/var/lib/zol/vconf"; }
    std::string MemoryFolder() const { return Root() + "/run/zol/vconf"; }
    std::string Database() const { return DurableFolder() + "/vconf.db"; }

    /// Runs vconf_... calls in another process with this root: {"int", key, value}, {"str", key, value},
    /// {"bool", key, value}, {"unset", key}, {"get", key}. @return what it printed: one line per call
    std::string InAnotherProcess(const std::vector<std::string>& calls);

    /// Lines that other processes with this root logged and that contain the text.
    int LogLines(const std::string& text) const;
    /// Names in the durable folder that contain the text.
    std::vector<std::string> FilesNamed(const std::string& text) const;

private:
    TemporaryFolder m_folder{std::getenv("ZOL_ROOT")};
    PlatformLog m_log;
    GMainContext* m_context;
    std::unique_ptr<keystore::KeyStore> m_store;
};

/// Counts the calls and keeps the last one.
struct Heard {
    int calls = 0;
    std::string key;
    int type = -1;
    int number = 0;
    std::string text;

    static void Callback(keynode_t* node, void* self);
};
