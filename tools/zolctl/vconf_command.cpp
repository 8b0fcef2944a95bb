#include <glib-unix.h>
#include <glib.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/glib_handles.h"
#include "commands.h"
#include "text.h"
#include "vconf.h"

namespace zolctl {
namespace {

using tools::OneLine;

/// A value as the store holds it.
struct Value {
    int type = VCONF_TYPE_NONE;
    int number = 0;
    std::string text;
};

const std::map<std::string, int> kTypes{
    {"int", VCONF_TYPE_INT}, {"string", VCONF_TYPE_STRING}, {"bool", VCONF_TYPE_BOOL}};

const char* TypeName(int type) {
    for (const auto& [name, code] : kTypes) {
        if (code == type) {
            return name.c_str();
        }
    }
    return "none";
}

/// Of type VCONF_TYPE_NONE, with errno, when there is none to read.
Value Read(const std::string& key) {
    Value value;
    errno = 0;
    if (vconf_get_int(key.c_str(), &value.number) == 0) {
        value.type = VCONF_TYPE_INT;
    } else if (vconf_get_bool(key.c_str(), &value.number) == 0) {
        value.type = VCONF_TYPE_BOOL;
    } else if (const base::MallocString text{vconf_get_str(key.c_str())}) {
        value.type = VCONF_TYPE_STRING;
        value.text = text.get();
    }
    return value;
}

std::string Shown(const Value& value) {
    switch (value.type) {
        case VCONF_TYPE_INT:
            return std::to_string(value.number);
        case VCONF_TYPE_BOOL:
            return value.number != 0 ? "true" : "false";
        default:
            return OneLine(value.text);
    }
}

/// Says why an operation on a key failed.
int Fail(const char* what, const std::string& key, int error) {
    std::cerr << "zolctl: cannot " << what << ' ' << OneLine(key) << ": "
              << (error != 0 ? std::strerror(error) : "the key store refused")
              << (error == EACCES ? "; the key store is for root and members of the group zol" : "") << '\n';
    return EXIT_UNREACHABLE;
}

int Get(const std::string& key) {
    const Value value = Read(key);
    const int error = errno;
    if (value.type == VCONF_TYPE_NONE && error != ENOENT) {
        return Fail("read", key, error);
    }
    if (value.type == VCONF_TYPE_NONE) {
        std::cerr << "zolctl: no such key: " << OneLine(key) << '\n';
        return EXIT_REFUSED;
    }
    std::cout << (value.type == VCONF_TYPE_STRING ? value.text : Shown(value)) << '\n';
    return EXIT_OK;
}

bool ParseInt(const std::string& text, int& number) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end;
}

bool ParseBool(const std::string& text, int& number) {
    static const std::map<std::string, int> words{{"true", 1},  {"1", 1}, {"on", 1},
                                                  {"false", 0}, {"0", 0}, {"off", 0}};
    const auto word = words.find(text);
    if (word != words.end()) {
        number = word->second;
    }
    return word != words.end();
}

int Set(const std::string& key, const std::string& text, const std::string& typeName) {
    int type = typeName.empty() ? Read(key).type : kTypes.at(typeName);
    if (type == VCONF_TYPE_NONE) {
        type = VCONF_TYPE_STRING;
    }
    int number = 0;
    if ((type == VCONF_TYPE_INT && !ParseInt(text, number)) ||
        (type == VCONF_TYPE_BOOL && !ParseBool(text, number))) {
        std::cerr << "zolctl: not a value of type " << TypeName(type) << ": " << OneLine(text) << '\n';
        return EXIT_UNREACHABLE;
    }
    const int result = type == VCONF_TYPE_INT    ? vconf_set_int(key.c_str(), number)
                       : type == VCONF_TYPE_BOOL ? vconf_set_bool(key.c_str(), number)
                                                 : vconf_set_str(key.c_str(), text.c_str());
    return result == 0 ? EXIT_OK : Fail("set", key, errno);
}

void PrintChange(keynode_t* node, void* loop) {
    Value value;
    value.type = vconf_keynode_get_type(node);
    value.number = node->int_value;
    value.text = node->str_value != nullptr ? node->str_value : "";
    std::cout << OneLine(node->keyname) << '\t' << TypeName(value.type) << '\t' << Shown(value) << std::endl;
    if (!std::cout) {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
    }
}

gboolean Quit(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

int Watch(const std::vector<std::string>& keys) {
    const base::GMainLoopPtr loop(g_main_loop_new(nullptr, FALSE));
    for (const std::string& key : keys) {
        if (vconf_notify_key_changed(key.c_str(), PrintChange, loop.get()) < 0) {
            return Fail("watch", key, errno);
        }
    }
    g_unix_signal_add(SIGINT, Quit, loop.get());
    g_unix_signal_add(SIGTERM, Quit, loop.get());
    // Whoever reads this through a pipe may start changing keys now.
    std::cerr << "watching " << keys.size() << (keys.size() == 1 ? " key" : " keys") << std::endl;
    g_main_loop_run(loop.get());
    for (const std::string& key : keys) {
        vconf_withdraw_key_changed(key.c_str(), PrintChange, loop.get());
    }
    return EXIT_OK;
}

void AddGet(CLI::App& vconf, Action& action) {
    CLI::App* get = vconf.add_subcommand("get", "Print a key's value; 1 when there is no such key");
    auto key = std::make_shared<std::string>();
    get->add_option("KEY", *key)->required();
    get->callback([key, &action] { action = [key] { return Get(*key); }; });
}

void AddSet(CLI::App& vconf, Action& action) {
    struct Arguments {
        std::string key;
        std::string value;
        std::string type;
    };
    CLI::App* set = vconf.add_subcommand("set", "Set a key; other processes are told at once");
    auto given = std::make_shared<Arguments>();
    set->add_option("KEY", given->key)->required();
    set->add_option("VALUE", given->value)->required();
    set->add_option("--type", given->type,
                    "int, string or bool; without it the type that the key has, else string")
        ->check(CLI::IsMember({"int", "string", "bool"}));
    set->callback(
        [given, &action] { action = [given] { return Set(given->key, given->value, given->type); }; });
}

void AddWatch(CLI::App& vconf, Action& action) {
    CLI::App* watch =
        vconf.add_subcommand("watch", "Print KEY<TAB>TYPE<TAB>VALUE at every change, until interrupted");
    auto keys = std::make_shared<std::vector<std::string>>();
    watch->add_option("KEY", *keys)->required()->expected(1, -1);
    watch->callback([keys, &action] { action = [keys] { return Watch(*keys); }; });
}

}  // namespace

void AddVconfCommand(CLI::App& app, Action& action) {
    CLI::App* vconf = app.add_subcommand("vconf", "Keys of the configuration store");
    vconf->require_subcommand(1);
    AddGet(*vconf, action);
    AddSet(*vconf, action);
    AddWatch(*vconf, action);
}

}  // namespace zolctl
