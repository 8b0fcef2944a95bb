/// zol_policy_test: plays written scenarios on the daemon's own parts. `zolctl policy test` starts it.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "isolated.h"
#include "junit.h"
#include "policies.h"
#include "progress.h"
#include "scenario_reader.h"
#include "text.h"

namespace policytest {
namespace {

using tools::Printable;

enum EExit {
    EXIT_PASSED = 0,
    EXIT_FAILED = 1,     ///< a scenario failed
    EXIT_UNREADABLE = 2  ///< a scenario or a policy cannot be read, bad usage, or no way to write the output
};

struct Options {
    std::vector<std::string> files;
    std::string junit;  ///< empty: none
};

std::string ToText(const Place& place) {
    return Printable(place.file) +
           (place.line > 0 ? ":" + std::to_string(place.line) + ":" + std::to_string(place.column) : "") +
           ": ";
}

void Say(const std::string& line) {
    std::cerr << "zolctl: " << line << '\n';
}

Result UnreadableResult(const std::string& file, const BadScenario& error) {
    const bool isWhole = error.place.line == 0;  // the text names the file itself
    Result result{error.place, file, Result::Outcome::UNREADABLE, {}, {}};
    result.text = (isWhole ? "" : ToText(error.place)) + Printable(error.what()) +
                  (error.hint.empty() ? "" : " (" + Printable(error.hint) + ")");
    result.place.line = std::max(1, result.place.line);
    return result;
}

/// Reads all files; what cannot be read is told at once and becomes a result.
std::vector<Scenario> ReadAll(const Options& options, std::vector<Result>& results) {
    std::vector<Scenario> all;
    ScenarioReader reader;
    for (const std::string& file : options.files) {
        try {
            for (Scenario& scenario : reader.Read(file)) {
                all.push_back(std::move(scenario));
            }
        } catch (const BadScenario& error) {
            results.push_back(UnreadableResult(file, error));
            Say(results.back().text);
        }
    }
    return all;
}

/// What the run has come to.
struct Progress {
    std::size_t scenarios = 0;
    std::size_t played = 0;
    std::set<std::string> said;  ///< remarks about policies
    tools::ProgressLine line;
};

std::optional<Failure> CheckAndPlay(const Scenario& scenario, Progress& run) {
    const PolicyRemarks remarks = CheckPolicies(scenario);
    if (remarks.hasErrors && !scenario.isFaulty) {
        const Place place = scenario.policy ? scenario.policy->place : scenario.place;
        return Failure{place, "the policy has errors (\"faulty: true\" plays it all the same)",
                       remarks.lines};
    }
    for (const std::string& line : remarks.lines) {
        if (run.said.insert(line).second) {
            std::cout << line << '\n';
        }
    }
    std::cout.flush();
    if (run.scenarios > 1) {
        run.line.Show(tools::Bar(run.played, run.scenarios) + " scenarios");
    }
    std::optional<Failure> failure = PlayIsolated(scenario);
    run.line.Clear();
    return failure;
}

Result ResultOf(const Scenario& scenario, Progress& run) {
    const auto begin = std::chrono::steady_clock::now();
    const std::optional<Failure> failure = CheckAndPlay(scenario, run);
    Result result{scenario.place, scenario.name, Result::Outcome::PASSED, {}, {}};
    result.took = std::chrono::steady_clock::now() - begin;
    if (failure) {
        result.outcome = Result::Outcome::FAILED;
        result.text = ToText(failure->place) + Printable(failure->text);
        std::transform(failure->reasons.begin(), failure->reasons.end(), std::back_inserter(result.reasons),
                       Printable);
    }
    return result;
}

void Print(const Result& result) {
    const bool isPassed = result.outcome == Result::Outcome::PASSED;
    std::cout << (isPassed ? "ok    " : "FAIL  ") << Printable(result.place.file) << ':' << result.place.line
              << ": " << Printable(result.name) << '\n';
    if (!isPassed) {
        std::cout << result.text << '\n';
    }
    for (const std::string& reason : result.reasons) {
        std::cout << "    " << reason << '\n';
    }
    std::cout.flush();
}

void PrintSummary(const std::vector<Result>& results) {
    const auto count = [&results](Result::Outcome outcome) {
        return std::count_if(results.begin(), results.end(),
                             [outcome](const Result& result) { return result.outcome == outcome; });
    };
    const auto passed = count(Result::Outcome::PASSED);
    const auto failed = count(Result::Outcome::FAILED);
    const auto unreadable = count(Result::Outcome::UNREADABLE);
    std::cout << passed + failed << (passed + failed == 1 ? " scenario: " : " scenarios: ") << passed
              << " passed, " << failed << " failed";
    if (unreadable > 0) {
        std::cout << "; " << unreadable << (unreadable == 1 ? " file" : " files") << " cannot be read";
    }
    std::cout << '\n';
}

int StatusOf(const std::vector<Result>& results) {
    int status = EXIT_PASSED;
    for (const Result& result : results) {
        status = std::max<int>(status, result.outcome == Result::Outcome::PASSED   ? EXIT_PASSED
                                       : result.outcome == Result::Outcome::FAILED ? EXIT_FAILED
                                                                                   : EXIT_UNREADABLE);
    }
    return status;
}

int Test(const Options& options) {
    std::vector<Result> results;
    const std::vector<Scenario> scenarios = ReadAll(options, results);
    {
        const Scratch scratch;
        Progress run;
        run.scenarios = scenarios.size();
        for (const Scenario& scenario : scenarios) {
            results.push_back(ResultOf(scenario, run));
            Print(results.back());
            ++run.played;
        }
    }
    PrintSummary(results);
    if (!options.junit.empty()) {
        if (const std::error_code error = WriteJunit(options.junit, results)) {
            Say("cannot write " + Printable(options.junit) + ": " + error.message());
            return EXIT_UNREADABLE;
        }
    }
    return StatusOf(results);
}

int Run(int argc, char** argv) {
    CLI::App app{
        "Plays scenarios with the daemon's own parts on simulated time; 0 all passed, 1 some failed, 2 a "
        "file "
        "cannot be read",
        "zolctl policy test"};
    app.footer(
        "Needs no daemon and leaves nothing behind. A scenario is YAML: a policy, keys, and steps such as\n"
        "\"set:\", \"connect:\", \"install:\", \"pass:\", \"standby:\", \"restart\" and \"expect:\";\n"
        "docs/policy-testing.md describes all of them.\n\n"
        "Example: zolctl policy test --junit results.xml scenarios/*.yaml");
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return "zolctl: " + tools::OneLine(error.what()) + " (see zolctl policy test --help)\n";
    });
    Options options;
    app.add_option("SCENARIO", options.files, "YAML files, or - for standard input")->required();
    app.add_option("--junit", options.junit, "Write the results to this file, too, as JUnit has them");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_PASSED : EXIT_UNREADABLE;
    }
    return Test(options);
}

}  // namespace
}  // namespace policytest

int main(int argc, char** argv) {
    // Who reads the output may go at any time: that is a failed write like any other.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const int status = policytest::Run(argc, argv);
        if (!std::cout.flush()) {
            policytest::Say("cannot write the output");
            return policytest::EXIT_UNREADABLE;
        }
        return status;
    } catch (const std::exception& error) {
        policytest::Say(tools::OneLine(error.what()));
        return policytest::EXIT_UNREADABLE;
    }
}
