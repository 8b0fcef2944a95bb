#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <string>

#include "commands.h"
#include "output.h"
#include "policy_daemon.h"
#include "state.h"
#include "text.h"

namespace zolctl {
namespace {

using tools::Printable;

std::string Text(const Json::Value& value) {
    return value.isString() ? '"' + Printable(value.asString()) + '"' : value.asString();
}

/// "1", or "2.1" for what belongs to another set of tasks than the first.
std::string NumberOf(const Json::Value& rule) {
    const std::string item = rule["item"].asString();
    return rule["set"].asUInt() > 1 ? rule["set"].asString() + "." + item : item;
}

/// What the rule waits for.
std::string ConditionOf(const Json::Value& rule) {
    if (rule["kind"] == "key") {
        const std::string what = Printable(rule["key"].asString()) + ' ' + rule["condition"].asString() + ' ';
        return rule.isMember("greater")    ? what + Text(rule["greater"]) + " and " + Text(rule["less"])
               : rule.isMember("strvalue") ? what + Text(rule["strvalue"])
                                           : what + Text(rule["intvalue"]);
    }
    const std::string times = rule["repetition"].asString() + " in " + rule["period"].asString() +
                              " s (method " + rule["method"].asString() + ")";
    return rule["kind"] == "install" ? "install of " + Printable(rule["id"].asString()) + ", " + times
                                     : "pairing of remotes, " + times;
}

void PrintKey(const Json::Value& rule) {
    const std::string type = rule["value-type"].asString();
    std::cout << "  now: ";
    if (rule.isMember("value")) {
        std::cout << Text(rule["value"]) << " (" << type << ")";
    } else {
        std::cout << (type == "none" ? "there is no such key" : "the key cannot be read");
    }
    if (rule.isMember("holds")) {
        std::cout << (rule["holds"].asBool() ? ", the rule holds" : ", the rule does not hold");
    } else if (rule.isMember("value")) {
        std::cout << ", which is compared with nothing";
    }
    std::cout << '\n';
    if (rule.isMember("judged-by")) {
        std::cout << "  a change of the key is judged by rule " << rule["judged-by"].asString()
                  << " alone, which names it first\n";
    }
}

void PrintMonitor(const Json::Value& rule) {
    std::cout << "  counted: " << rule["count"].asString() << " of " << rule["repetition"].asString();
    if (rule.isMember("period-ends")) {
        std::cout << ", the period ends " << tools::LocalTime(rule["period-ends"].asInt64());
    }
    std::cout << '\n';
    if (rule.isMember("ignore")) {
        std::cout << "  ignored: what follows within " << rule["ignore"].asString() << " s\n";
    }
}

int Explain(const std::string& key, bool isJson) {
    PolicyDaemon daemon;
    Json::Value rules;
    if (const auto end = daemon.Explain(key, rules); end != PolicyDaemon::EEnd::ANSWERED) {
        return daemon.Fail(end);
    }
    if (isJson) {
        PrintJson(rules);
    }
    if (rules.empty()) {
        std::cerr << "zolctl: no rule that runs looks at " << (key.empty() ? "anything" : Printable(key))
                  << '\n';
        return EXIT_REFUSED;
    }
    for (const Json::Value& rule : isJson ? Json::Value() : rules) {
        std::cout << NumberOf(rule) << ' ' << ConditionOf(rule) << ": " << rule["state"].asString() << '\n';
        if (rule["kind"] == "key") {
            PrintKey(rule);
        } else {
            PrintMonitor(rule);
        }
    }
    return EXIT_OK;
}

int Show(bool isJson) {
    PolicyDaemon daemon;
    Json::Value state;
    Json::Value rules;
    auto end = daemon.Properties(state);
    if (end == PolicyDaemon::EEnd::ANSWERED) {
        end = daemon.Explain("", rules);
    }
    if (end != PolicyDaemon::EEnd::ANSWERED) {
        return daemon.Fail(end);
    }
    if (isJson) {
        Json::Value shown = PolicyOf(state);
        shown["rules"] = rules;
        PrintJson(shown);
        return EXIT_OK;
    }
    PrintPolicy(std::cout, state);
    for (const Json::Value& rule : rules) {
        std::cout << NumberOf(rule) << '\t' << rule["kind"].asString() << '\t' << ConditionOf(rule) << '\t'
                  << rule["state"].asString() << '\n';
    }
    return EXIT_OK;
}

}  // namespace

void AddShowCommands(CLI::App& policy, Action& action) {
    CLI::App* show = policy.add_subcommand(
        "show", "Print which policy runs and its rules; 2 when the daemon is not reachable");
    show->footer(
        "Lines: running, stored and rules as zolctl status has them; then a line for each rule:\n"
        "NUMBER<TAB>KIND<TAB>WHAT<TAB>STATE.\n\n"
        "Example: zolctl policy show --json");
    auto isJson = std::make_shared<bool>(false);
    show->add_flag("--json", *isJson, "As JSON");
    show->callback([=, &action] { action = [=] { return Show(*isJson); }; });

    CLI::App* explain = policy.add_subcommand(
        "explain",
        "Tell why rules are hit or not; 1 when no rule looks at KEY, 2 when the daemon is not reachable");
    explain->footer("Example: zolctl policy explain db/menu/picture/backlight");
    auto key = std::make_shared<std::string>();
    auto isJsonToo = std::make_shared<bool>(false);
    explain->add_option("KEY", *key, "Without it: every rule that runs");
    explain->add_flag("--json", *isJsonToo, "As JSON; docs/dbus.md lists the names");
    explain->callback([=, &action] { action = [=] { return Explain(*key, *isJsonToo); }; });
}

}  // namespace zolctl
