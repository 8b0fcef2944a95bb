#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/glib_handles.h"
#include "commands.h"
#include "loop.h"
#include "text.h"
#include "vconf.h"

namespace zolctl {
namespace {

using tools::Printable;

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
            return Printable(value.text);
    }
}

/// Says why an operation on a key failed.
int Fail(const char* what, const std::string& key, int error) {
    std::cerr << "zolctl: cannot " << what << ' ' << Printable(key) << ": "
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
        std::cerr << "zolctl: no such key: " << Printable(key) << '\n';
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

void Print(const std::string& key, const Value& value) {
    std::cout << Printable(key) << '\t' << TypeName(value.type) << '\t' << Shown(value) << '\n';
}

int List(const std::string& prefix) {
    constexpr std::size_t kKeyBytes = 256;
    std::array<char, kKeyBytes> key{};
    prefix.copy(key.data(), key.size() - 1);
    // The key that is the prefix itself is not behind it.
    if (const Value value = prefix.empty() ? Value() : Read(prefix); value.type != VCONF_TYPE_NONE) {
        Print(prefix, value);
    }
    int result = 0;
    while ((result = vconf_next_key(key.data(), key.data(), key.size())) == 0 &&
           prefix.compare(0, prefix.size(), key.data(), std::min(prefix.size(), std::strlen(key.data()))) ==
               0) {
        // One that goes while it is looked at is none.
        if (const Value value = Read(key.data()); value.type != VCONF_TYPE_NONE) {
            Print(key.data(), value);
        }
    }
    return result == 0 || errno == ENOENT ? EXIT_OK
                                          : Fail("list", prefix.empty() ? "the keys" : prefix, errno);
}

int Unset(const std::string& key) {
    const bool isThere = Read(key).type != VCONF_TYPE_NONE;
    if (!isThere && errno == ENOENT) {
        std::cerr << "zolctl: no such key: " << Printable(key) << '\n';
        return EXIT_REFUSED;
    }
    return vconf_unset(key.c_str()) == 0 ? EXIT_OK : Fail("remove", key, errno);
}

int Set(const std::string& key, const std::string& text, const std::string& typeName) {
    int type = typeName.empty() ? Read(key).type : kTypes.at(typeName);
    int number = 0;
    if (type == VCONF_TYPE_NONE && errno != ENOENT) {
        return Fail("read", key, errno);
    }
    if (type == VCONF_TYPE_NONE) {
        type = VCONF_TYPE_STRING;
        if (ParseInt(text, number) || ParseBool(text, number)) {
            std::cerr << "zolctl: warning: " << Printable(key)
                      << " is new and becomes a string; --type int or --type bool makes it another type\n";
        }
    }
    if ((type == VCONF_TYPE_INT && !ParseInt(text, number)) ||
        (type == VCONF_TYPE_BOOL && !ParseBool(text, number))) {
        std::cerr << "zolctl: not a value of type " << TypeName(type) << ": " << Printable(text) << '\n';
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
    std::cout << Printable(node->keyname) << '\t' << TypeName(value.type) << '\t' << Shown(value)
              << std::endl;
    if (!std::cout) {
        static_cast<Loop*>(loop)->Quit();
    }
}

int Watch(const std::vector<std::string>& keys, bool isNow) {
    Loop loop;
    for (const std::string& key : keys) {
        if (vconf_notify_key_changed(key.c_str(), PrintChange, &loop) < 0) {
            return Fail("watch", key, errno);
        }
    }
    for (const std::string& key : isNow ? keys : std::vector<std::string>()) {
        const Value value = Read(key);
        if (value.type == VCONF_TYPE_NONE && errno != ENOENT) {
            return Fail("read", key, errno);
        }
        Print(key, value);
    }
    std::cout.flush();
    // Whoever reads this through a pipe may start changing keys now.
    std::cerr << "watching " << keys.size() << (keys.size() == 1 ? " key" : " keys") << std::endl;
    loop.Run();
    for (const std::string& key : keys) {
        vconf_withdraw_key_changed(key.c_str(), PrintChange, &loop);
    }
    return EXIT_OK;
}

void AddGet(CLI::App& vconf, Action& action) {
    CLI::App* get = vconf.add_subcommand("get", "Print a key's value; 1 when there is no such key");
    auto key = std::make_shared<std::string>();
    get->footer("Example: zolctl vconf get db/zol/send_zol_files_path");
    get->add_option("KEY", *key)->required();
    get->callback([key, &action] { action = [key] { return Get(*key); }; });
}

void AddList(CLI::App& vconf, Action& action) {
    CLI::App* list =
        vconf.add_subcommand("list", "Print KEY<TAB>TYPE<TAB>VALUE of every key, in their order");
    auto prefix = std::make_shared<std::string>();
    list->footer("Example: zolctl vconf list db/menu");
    list->add_option("PREFIX", *prefix, "Of keys that begin so only");
    list->callback([prefix, &action] { action = [prefix] { return List(*prefix); }; });
}

void AddUnset(CLI::App& vconf, Action& action) {
    CLI::App* unset = vconf.add_subcommand("unset", "Remove a key; 1 when there is no such key");
    auto key = std::make_shared<std::string>();
    unset->footer("Example: zolctl vconf unset db/menu/picture/backlight");
    unset->add_option("KEY", *key)->required();
    unset->callback([key, &action] { action = [key] { return Unset(*key); }; });
}

void AddSet(CLI::App& vconf, Action& action) {
    struct Arguments {
        std::string key;
        std::string value;
        std::string type;
    };
    CLI::App* set = vconf.add_subcommand("set", "Set a key; other processes are told at once");
    auto given = std::make_shared<Arguments>();
    set->footer(
        "Examples:\n"
        "  zolctl vconf set db/menu/picture/backlight 10 --type int\n"
        "  zolctl vconf set --type string file/menu/mode -- -none-");
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
    auto isNow = std::make_shared<bool>(false);
    watch->footer("Example: zolctl vconf watch --now db/zol/send_zol_files_path db/menu/picture/backlight");
    watch->add_option("KEY", *keys)->required()->expected(1, -1);
    watch->add_flag("--now", *isNow, "Print first what the keys hold now (type none: there is no such key)");
    watch->callback([=, &action] { action = [=] { return Watch(*keys, *isNow); }; });
}

}  // namespace

void AddVconfCommand(CLI::App& app, Action& action) {
    CLI::App* vconf = app.add_subcommand("vconf", "Keys of the configuration store");
    vconf->require_subcommand(1);
    vconf->footer(
        "Examples:\n"
        "  zolctl vconf list db/menu\n"
        "  zolctl vconf set db/menu/picture/backlight 10 --type int\n"
        "  zolctl vconf watch --now db/zol/send_zol_files_path");
    AddGet(*vconf, action);
    AddList(*vconf, action);
    AddSet(*vconf, action);
    AddUnset(*vconf, action);
    AddWatch(*vconf, action);
}

}  // namespace zolctl
