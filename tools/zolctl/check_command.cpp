#include <json/value.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "PolicyCheck.h"
#include "commands.h"
#include "document.h"
#include "findings.h"
#include "key_types.h"
#include "output.h"

namespace zolctl {
namespace {

struct CheckOptions {
    std::vector<std::string> files;
    bool isJson = false;
    bool isStrict = false;
};

int StatusOf(const Checked& checked, bool isStrict) {
    if (!checked.unreadable.empty()) {
        return EXIT_UNREACHABLE;
    }
    const bool isBad = isStrict ? !checked.findings.empty() : HasErrors(checked.findings);
    return isBad ? EXIT_REFUSED : EXIT_OK;
}

int Check(const CheckOptions& options) {
    KeyTypes types;
    Json::Value list(Json::arrayValue);
    int status = EXIT_OK;
    for (const std::string& file : options.files) {
        Checked checked;
        checked.file = file;
        checked.unreadable = ReadRegularDocument(file, checked.text);
        if (checked.unreadable.empty()) {
            checked.findings = zol::CheckPolicy(
                checked.text, [&types](const std::string& key) { return types.TypeOf(key); });
        } else {
            std::cerr << "zolctl: " << checked.unreadable << '\n';
        }
        if (options.isJson) {
            list.append(ToJson(checked));
        } else {
            PrintFindings(std::cout, checked, IsColoured());
        }
        status = std::max(status, StatusOf(checked, options.isStrict));
    }
    if (options.isJson) {
        PrintJson(list);
    }
    return status;
}

}  // namespace

void AddCheckCommand(CLI::App& policy, Action& action) {
    CLI::App* check = policy.add_subcommand(
        "check", "Tell what is wrong with policies; 0 nothing, 1 errors, 2 a file cannot be read");
    check->footer(
        "Needs no daemon. Prints FILE:LINE:COLUMN: error|warning: TEXT (HINT) for each finding:\n"
        "an error where the daemon refuses the policy or drops an item of it, a warning where\n"
        "it ignores something or takes it for something else.\n\n"
        "Example: zolctl policy check --strict policy.xml && zolctl policy push policy.xml");
    auto options = std::make_shared<CheckOptions>();
    check->add_option("FILE", options->files, "XML documents, or - for standard input")->required();
    check->add_flag("--json", options->isJson, "As a JSON array, one object for each file");
    check->add_flag("--strict", options->isStrict, "1 for warnings, too");
    check->callback([options, &action] { action = [options] { return Check(*options); }; });
}

}  // namespace zolctl
