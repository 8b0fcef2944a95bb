/// zol_collector: takes the daemon's reports into a spool.
#include <glib-unix.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include "base/glib_handles.h"
#include "collector.h"
#include "exit_status.h"
#include "hand_over.h"
#include "options.h"
#include "retry_delay.h"
#include "spool.h"
#include "status.h"
#include "uploads.h"

namespace {

using namespace collector;

void Say(const std::string& line) {
    std::cerr << "zol_collector: " << line << std::endl;
}

gboolean Quit(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

/// zol_upload lies beside this program.
std::vector<std::string> UploadCommand(const Options& options) {
    std::error_code ignored;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ignored);
    const UploadOptions& upload = options.upload;
    std::vector<std::string> words = {(self.parent_path() / "zol_upload").string(), "--scratch",
                                      options.spool + "/.incoming"};
    const std::pair<const char*, const std::string&> given[] = {
        {"--url", upload.url}, {"--cacert", upload.authorities}, {"--cert", upload.certificate},
        {"--key", upload.key}, {"--proxy", upload.proxy},        {"--timeout", upload.timeoutSeconds}};
    for (const auto& [name, value] : given) {
        if (!value.empty()) {
            words.insert(words.end(), {name, value});
        }
    }
    return words;
}

int Collect(const Options& options) {
    const base::GMainLoopPtr loop(g_main_loop_new(nullptr, FALSE));
    Spool spool(options.limits, Say);
    if (const reports::Outcome outcome = spool.Open(options.spool)) {
        Say(outcome.text);
        return outcome.problem == reports::Problem::Busy ? EXIT_SECOND : EXIT_FAILED;
    }
    std::optional<Uploads> uploads;
    if (!options.upload.url.empty()) {
        uploads.emplace(spool, UploadCommand(options), RetryDelay(g_random_double), Say);
        uploads->Wake();
    }
    Collector collector(spool, options.settleSeconds, Say, [&] {
        if (uploads) {
            uploads->Wake();
        }
    });
    if (!collector.Start()) {
        Say(reports::StoreError(errno));
        return EXIT_FAILED;
    }
    Say("collecting into " + options.spool);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        g_unix_signal_add(number, Quit, loop.get());
    }
    g_main_loop_run(loop.get());
    return EXIT_OK;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const std::variant<Options, int> read = ReadOptions(argc, argv);
        if (const int* status = std::get_if<int>(&read)) {
            return *status;
        }
        const auto& options = std::get<Options>(read);
        return options.isStatus ? PrintStatus(options) : Collect(options);
    } catch (const std::exception& error) {
        Say(error.what());
        return EXIT_FAILED;
    }
}
