#include "key_store_fixture.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "child_process.h"
#include "waiting.h"

namespace fs = std::filesystem;

namespace {

std::string Get(const std::string& key) {
    int number = 0;
    if (vconf_get_int(key.c_str(), &number) == 0) {
        return "int " + std::to_string(number);
    }
    if (vconf_get_bool(key.c_str(), &number) == 0) {
        return "bool " + std::to_string(number);
    }
    char* text = vconf_get_str(key.c_str());
    const std::string answer = text != nullptr ? std::string("str ") + text : "none";
    std::free(text);
    return answer;
}

int CallVconf(const child::Arguments& calls) {
    for (std::size_t at = 0; at < calls.size();) {
        const std::string& call = calls[at];
        const char* key = calls[at + 1].c_str();
        if (call == "get") {
            child::Tell(Get(key));
        } else if (call == "unset") {
            child::Tell(std::to_string(vconf_unset(key)));
        } else {
            const char* value = calls[at + 2].c_str();
            const int result = call == "int"    ? vconf_set_int(key, std::atoi(value))
                               : call == "bool" ? vconf_set_bool(key, std::atoi(value))
                                                : vconf_set_str(key, value);
            child::Tell(std::to_string(result));
        }
        at += call == "get" || call == "unset" ? 2 : 3;
    }
    return 0;
}

const child::Program kVconf("vconf", CallVconf);

}  // namespace

KeyStoreTest::KeyStoreTest() : m_log(Root()), m_context(g_main_context_new()) {
    Reopen();
}

KeyStoreTest::~KeyStoreTest() {
    m_store.reset();
    g_main_context_unref(m_context);
}

void KeyStoreTest::Reopen() {
    m_store.reset();
    m_store = std::make_unique<keystore::KeyStore>(DurableFolder(), MemoryFolder(), m_context);
}

int KeyStoreTest::GetInt(const std::string& key) {
    keystore::Value value;
    return Store().Get(key.c_str(), &value) && value.type == VCONF_TYPE_INT ? value.number : -1;
}

bool KeyStoreTest::ServeUntil(const std::function<bool()>& condition) {
    return ::ServeUntil(condition, m_context);
}

void KeyStoreTest::ServePending() {
    while (g_main_context_iteration(m_context, FALSE)) {
    }
}

bool KeyStoreTest::ServeUntilIdle() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < end) {
        ServePending();
        gint priority = 0;
        gint timeout = 0;
        std::array<GPollFD, 8> fds;
        g_main_context_acquire(m_context);
        const bool ready = g_main_context_prepare(m_context, &priority) != FALSE;
        g_main_context_query(m_context, priority, &timeout, fds.data(), static_cast<gint>(fds.size()));
        g_main_context_release(m_context);
        if (!ready && timeout < 0) {
            return true;
        }
        g_main_context_iteration(m_context, TRUE);
    }
    return false;
}

std::string KeyStoreTest::InAnotherProcess(const std::vector<std::string>& calls) {
    child::Process process("vconf", calls, Root());
    const std::string output = process.ReadAll();
    EXPECT_EQ(process.Wait(), 0);
    return output;
}

int KeyStoreTest::LogLines(const std::string& text) const {
    return m_log.Count(text);
}

std::vector<std::string> KeyStoreTest::FilesNamed(const std::string& text) const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(DurableFolder())) {
        const std::string name = entry.path().filename().string();
        if (name.find(text) != std::string::npos) {
            names.push_back(name);
        }
    }
    return names;
}

void Heard::Callback(keynode_t* node, void* self) {
    auto* heard = static_cast<Heard*>(self);
    ++heard->calls;
    heard->key = node->keyname;
    heard->type = vconf_keynode_get_type(node);
    heard->number = node->int_value;
    heard->text = node->str_value != nullptr ? node->str_value : "";
}
