#include "key_store_fixture.h"

#include <algorithm>
#include <cstdlib>

#include "base/handles.h"
#include "child_process.h"

namespace {

std::string ValueOf(const std::string& key) {
    int number = 0;
    if (vconf_get_int(key.c_str(), &number) == 0) {
        return "int " + std::to_string(number);
    }
    if (vconf_get_bool(key.c_str(), &number) == 0) {
        return "bool " + std::to_string(number);
    }
    const base::MallocString text(vconf_get_str(key.c_str()));
    return text != nullptr ? std::string("str ") + text.get() : "none";
}

int CallVconf(const child::Arguments& calls) {
    for (std::size_t at = 0; at < calls.size();) {
        const std::string& call = calls[at];
        const char* key = calls[at + 1].c_str();
        if (call == "get") {
            child::Tell(ValueOf(key));
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

int KeyStoreTest::GetInt(const std::string& key) {
    int value = -1;
    return vconf_get_int(key.c_str(), &value) == 0 ? value : -1;
}

std::string KeyStoreTest::Get(const std::string& key) {
    return ValueOf(key);
}

std::string KeyStoreTest::Root() {
    return std::getenv("ZOL_ROOT");
}

std::string KeyStoreTest::InAnotherProcess(const std::vector<std::string>& calls) {
    child::Process process("vconf", calls, Root());
    const std::string output = process.ReadAll();
    EXPECT_EQ(process.Wait(), 0);
    return output;
}

Heard::~Heard() {
    while (!m_keys.empty()) {
        EXPECT_TRUE(Withdraw(std::string(m_keys.back())));
    }
}

bool Heard::Watch(const std::string& wanted) {
    const bool isRegistered = vconf_notify_key_changed(wanted.c_str(), &Heard::Callback, this) == 0;
    if (isRegistered) {
        m_keys.push_back(wanted);
    }
    return isRegistered;
}

bool Heard::Withdraw(const std::string& wanted) {
    const auto found = std::find(m_keys.begin(), m_keys.end(), wanted);
    if (found != m_keys.end()) {
        m_keys.erase(found);
    }
    return vconf_withdraw_key_changed(wanted.c_str(), &Heard::Callback, this) == 0;
}

void Heard::Callback(keynode_t* node, void* self) {
    auto* heard = static_cast<Heard*>(self);
    ++heard->calls;
    heard->key = node->keyname;
    heard->type = vconf_keynode_get_type(node);
    heard->number = node->int_value;
    heard->text = node->str_value != nullptr ? node->str_value : "";
}
