#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iostream>

#include "device_path.h"
#include "device_paths.h"
#include "exit_status.h"
#include "text.h"

namespace collector {
namespace {

constexpr const char* kAbout =
    "Takes the reports that the policy daemon makes: each that is published, and those that were left lying, "
    "once.\nThey go into a spool, each whole, before the key of the hand-over is emptied.";
constexpr const char* kExamples =
    "Exit statuses: 0 ended by a signal; 1 the spool or the key store refuses this account; 2 an argument or "
    "the configuration file is wrong; 3 another collector works on this spool.\n"
    "Examples:\n"
    "  zol_collector                                   # into /var/lib/zol-collector\n"
    "  zol_collector --spool /data/reports --max-bytes 64MB\n"
    "  zol_collector --upload https://example.org/reports --cert /etc/zol/device.pem --cacert "
    "/etc/zol/ca.pem\n"
    "  zol_collector --status --json                   # what is in the spool, and what was dropped\n"
    "A line of the configuration file is an option without its dashes: max-reports=200";

// Longer than a report takes to settle.
constexpr unsigned kSettleSeconds = 15;
constexpr unsigned kLongestSettleSeconds = 3600;
constexpr unsigned kLongestTimeoutSeconds = 3600;
constexpr std::size_t kMostReports = 65536;
constexpr std::uint64_t kFewestBytes = 65536;
constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 40;

std::string CheckUrl(const std::string& url) {
    const bool isHttp = url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0;
    return isHttp ? "" : "begins with neither https:// nor http://";
}

void AddUpload(CLI::App& app, UploadOptions& upload) {
    CLI::Option* url = app.add_option("--upload", upload.url, "Send each report to this https:// address")
                           ->check(CLI::Validator(CheckUrl, "URL"));
    app.add_option("--cacert", upload.authorities, "PEM file: who may sign for the server")->needs(url);
    app.add_option("--cert", upload.certificate, "PEM file: certificate of this device")->needs(url);
    app.add_option("--key", upload.key, "PEM file: its key; without: in that of the certificate")->needs(url);
    app.add_option("--proxy", upload.proxy, "Without: https_proxy of the environment")->needs(url);
    app.add_option("--upload-timeout", upload.timeoutSeconds,
                   "Seconds without a byte; ten times that for all")
        ->check(CLI::Range(1U, kLongestTimeoutSeconds))
        ->needs(url);
}

void Add(CLI::App& app, Options& options) {
    options.spool = DevicePath(ZOL_PATH_COLLECTOR_SPOOL);
    options.settleSeconds = kSettleSeconds;
    app.footer(kExamples);
    app.set_config("--config", DevicePath(ZOL_PATH_COLLECTOR_CONF), "Options, one a line");
    app.add_option("--spool", options.spool, "Where reports are kept; made when it is missing")
        ->capture_default_str();
    app.add_option("--max-bytes", options.limits.bytes, "What the spool may take of the disk; 64KB, 16MB")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::Range(kFewestBytes, kMostBytes))
        ->capture_default_str();
    app.add_option("--max-reports", options.limits.reports, "How many reports may lie in it")
        ->check(CLI::Range(std::size_t{1}, kMostReports))
        ->capture_default_str();
    app.add_option("--settle", options.settleSeconds,
                   "Seconds without a published report before those that lie there are looked at")
        ->check(CLI::Range(1U, kLongestSettleSeconds))
        ->capture_default_str();
    AddUpload(app, options.upload);
    CLI::Option* status = app.add_flag("--status", options.isStatus, "Print what is in the spool, and end")
                              ->configurable(false);
    app.add_flag("--json", options.isJson, "With --status: as JSON")->needs(status)->configurable(false);
}

}  // namespace

std::variant<Options, int> ReadOptions(int argc, const char* const* argv) {
    CLI::App app(kAbout);
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return "zol_collector: " + tools::OneLine(error.what()) + " (see zol_collector --help)\n";
    });
    Options options;
    Add(app, options);
    try {
        app.allow_config_extras(CLI::config_extras_mode::error);
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE;
    }
    return options;
}

}  // namespace collector
