/// zol_upload: sends one report of the collector's spool to a server.
#include <fcntl.h>
#include <sys/prctl.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "packing.h"
#include "report.h"
#include "request.h"
#include "spool.h"
#include "text.h"
#include "upload_status.h"

namespace {

using namespace upload;

constexpr const char* kAbout =
    "Sends one report of the spool: what zol_collector --upload runs for each. Statuses: 0 the server has "
    "it, 1 it "
    "does not want it, 2 an argument is wrong, 3 it may work another time, 4 the report cannot be read. On "
    "the standard output, but for "
    "0: how "
    "many seconds to wait at least, a blank, the reason.";
constexpr long kLongestTimeout = 3600;

struct Options {
    Target target;
    std::string scratch;
    std::string entry;
};

void Add(CLI::App& app, Options& options) {
    app.add_option("--url", options.target.url, "Where to")->required();
    app.add_option("--cacert", options.target.authorities, "PEM file: who may sign for the server");
    app.add_option("--cert", options.target.certificate, "PEM file: certificate of this device");
    app.add_option("--key", options.target.key, "PEM file: its key");
    app.add_option("--proxy", options.target.proxy, "Proxy; without: that of the environment");
    app.add_option("--timeout", options.target.timeoutSeconds, "Seconds without a byte")
        ->check(CLI::Range(1L, kLongestTimeout));
    app.add_option("--scratch", options.scratch,
                   "Folder for packed files, for uploads alone: \"upload\" in it is removed")
        ->required();
    app.add_option("FOLDER", options.entry, "A folder of the spool: <number>-<id>")->required();
}

int Tell(const Answer& answer) {
    if (answer.verdict != Verdict::Done) {
        std::cout << answer.wishSeconds << ' ' << tools::OneLine(answer.reason) << std::endl;
    }
    switch (answer.verdict) {
        case Verdict::Done:
            return EXIT_DONE;
        case Verdict::Refused:
            return EXIT_REFUSED;
        case Verdict::Unreadable:
            return EXIT_REPORT;
        case Verdict::Again:
            break;
    }
    return EXIT_AGAIN;
}

Answer Failed(Verdict verdict, const std::string& reason) {
    Answer answer;
    answer.verdict = verdict;
    answer.reason = reason;
    return answer;
}

std::string ReadAll(int file) {
    std::string text;
    std::array<char, 4096> block;
    ssize_t length = 0;
    while ((length = read(file, block.data(), block.size())) > 0) {
        text.append(block.data(), static_cast<std::size_t>(length));
    }
    return text;
}

/// Adds the files of a report to the message, packed where there is room for that. A reason when it cannot be
/// done.
std::optional<std::string> AddFiles(int folder, const reports::Report& report, const Options& options,
                                    const Scratch& scratch, Message& message) {
    for (const reports::File& file : report.files) {
        const base::UniqueFd opened(reports::OpenFileAt(folder, file.name));
        if (!opened) {
            return file.name + ": " + std::strerror(errno);
        }
        if (file.name == reports::kHeaderName && report.header) {
            message.header = ReadAll(opened.Get());
            continue;
        }
        const std::string packed = scratch.Path() + "/" + std::to_string(message.files.size());
        if (!scratch.Path().empty() && !Pack(opened.Get(), packed)) {
            message.files.push_back({file.name + ".gz", packed, true});
        } else {
            // A disk that is full stays so for as long as nothing is uploaded.
            message.files.push_back({file.name, options.entry + "/" + report.name + "/" + file.name});
        }
    }
    return std::nullopt;
}

Answer Upload(const Options& options) {
    reports::Report report;
    base::UniqueFd folder;
    if (const reports::Outcome outcome = collector::OpenEntry(options.entry, folder, report)) {
        return Failed(Verdict::Unreadable, outcome.text);
    }
    const Scratch scratch(options.scratch);
    Message message;
    message.header = "{}";
    message.id = collector::IdOf(options.entry);
    message.name = report.name;
    message.isWhole = collector::IsWhole(options.entry);
    if (const std::optional<std::string> problem =
            AddFiles(folder.Get(), report, options, scratch, message)) {
        return Failed(Verdict::Unreadable, *problem);
    }
    return Send(options.target, message);
}

int Run(int argc, char** argv) {
    CLI::App app(kAbout);
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return "zol_upload: " + tools::OneLine(error.what()) + " (see zol_upload --help)\n";
    });
    Options options;
    Add(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    return Tell(Upload(options));
}

}  // namespace

int main(int argc, char** argv) {
    // It goes with the collector, however that ends.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        return Tell(Failed(Verdict::Again, error.what()));
    }
}
