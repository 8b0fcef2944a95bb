#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "base/unique_fd.h"
#include "commands.h"
#include "device_paths.h"
#include "moment.h"
#include "output.h"
#include "record.h"
#include "rule_lines.h"
#include "source.h"

namespace zolctl {
namespace {

using dlogutil::Record;
using dlogutil::Source;

constexpr std::string_view kLevels = "VDIWEF";
constexpr std::int64_t kUsPerSecond = 1000000;

struct LogOptions {
    std::vector<std::string> keys;
    std::vector<std::string> rules;
    std::string level = "V";
    std::string since;
    bool isFollow = false;
};

/// Which lines are wanted. Every line of the log is to be asked for, in order.
class Selection {
public:
    Selection(const LogOptions& options, std::int64_t since)
        : m_keys(options.keys),
          m_rules(options.rules.begin(), options.rules.end()),
          m_lowest(kLevels.find(options.level)),
          m_sinceUs(since * kUsPerSecond) {}

    bool Wants(const Record& record) {
        bool isWanted = m_keys.empty() && m_rules.empty();
        for (const std::string& key : m_keys) {
            isWanted = isWanted || Names(record.message, key);
        }
        for (RuleLines& rule : m_rules) {
            isWanted = rule.Wants(record) || isWanted;
        }
        return isWanted && record.wallUs >= m_sinceUs && kLevels.find(record.priority) >= m_lowest;
    }

private:
    const std::vector<std::string> m_keys;
    std::vector<RuleLines> m_rules;
    const std::size_t m_lowest;
    const std::int64_t m_sinceUs;
};

/// SIGINT and SIGTERM, which end the process no more once this was made.
class Interrupts {
public:
    Interrupts() {
        sigset_t signals{};
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        m_fd.Reset(signalfd(-1, &signals, SFD_CLOEXEC));
    }

    /// Readable once one has come.
    int Fd() const { return m_fd.Get(); }
    bool HaveCome() const {
        pollfd fd = {m_fd.Get(), POLLIN, 0};
        return poll(&fd, 1, 0) == 1;
    }

private:
    base::UniqueFd m_fd;
};

/// As one line whatever it holds, also what a terminal would obey: U+0080 to U+009F.
std::string Safe(const std::string& text) {
    std::string safe;
    for (const char character : dlogutil::Visible(text)) {
        const auto code = static_cast<unsigned char>(character);
        const bool isSecond = !safe.empty() && safe.back() == '\xC2' && code >= 0x80 && code < 0xA0;
        if (isSecond) {
            constexpr std::string_view kDigits = "0123456789abcdef";
            safe.pop_back();
            safe += {'\\', 'x', 'c', '2', '\\', 'x', kDigits[code >> 4U], kDigits[code & 0xFU]};
        } else {
            safe += character;
        }
    }
    return safe;
}

const char* ColourOf(char priority) {
    switch (priority) {
        case 'E':
        case 'F':
            return "\x1b[31m";
        case 'W':
            return "\x1b[33m";
        case 'I':
            return "";
        default:
            return "\x1b[2m";
    }
}

void Print(Record record, bool isColoured) {
    record.tag = Safe(record.tag);
    record.message = Safe(record.message);
    std::string line = dlogutil::Print(record, dlogutil::Format::Time);
    if (isColoured) {
        line.pop_back();
        line = ColourOf(record.priority) + line + "\x1b[0m\n";
    }
    std::cout << line;
}

/// Prints what is new. False when the log cannot be read.
bool Show(Source& source, Selection& selection) {
    const bool isColoured = IsColoured();
    const bool isRead = source.Drain([&](const Record& record) {
        if (selection.Wants(record)) {
            Print(record, isColoured);
        }
    });
    std::cout.flush();
    return isRead;
}

/// Says why there is nothing to read, or not all; the exit status for it.
int Tell(const std::error_code& missing, bool isFollow) {
    if (missing != std::errc::no_such_file_or_directory) {
        std::cerr << "zolctl: the log in " ZOL_PATH_LOG_DIR " cannot be read: " << missing.message()
                  << (missing == std::errc::permission_denied ? "; call as root" : "") << '\n';
        return EXIT_UNREACHABLE;
    }
    std::cerr << "zolctl: there is no log for this account, neither in the journal nor in " ZOL_PATH_LOG_DIR
              << (isFollow ? ": waiting for it" : "") << '\n';
    return isFollow ? EXIT_OK : EXIT_REFUSED;
}

int CannotRead() {
    std::cerr << "zolctl: the journal cannot be read\n";
    return EXIT_UNREACHABLE;
}

/// Prints what comes until interrupted, or until the output cannot be written or the log not be read.
int Follow(Source& source, Selection& selection, const Interrupts& interrupts) {
    while (std::cout && source.Wait(interrupts.Fd())) {
        if (interrupts.HaveCome()) {
            return EXIT_OK;
        }
        if (!Show(source, selection)) {
            return CannotRead();
        }
    }
    pollfd output = {STDOUT_FILENO, 0, 0};
    if (std::cout && poll(&output, 1, 0) == 0) {
        return CannotRead();
    }
    std::cout.setstate(std::ios::badbit);  // its reader has gone
    return EXIT_UNREACHABLE;
}

int Log(const LogOptions& options) {
    const std::optional<std::int64_t> since = SinceOf(options.since);
    if (!since) {
        return EXIT_UNREACHABLE;
    }
    const std::unique_ptr<Source> source = dlogutil::OpenLog({"main", "system"}, {});
    Selection selection(options, *since);
    if (source == nullptr || !Show(*source, selection)) {
        return CannotRead();
    }
    if (const std::error_code missing = source->Missing()) {
        if (const int status = Tell(missing, options.isFollow); status != EXIT_OK) {
            return status;
        }
    }
    return options.isFollow ? Follow(*source, selection, Interrupts()) : EXIT_OK;
}

}  // namespace

void AddLogCommand(CLI::App& app, Action& action) {
    CLI::App* log = app.add_subcommand(
        "log", "Print the platform log, oldest line first; 1 there is none, 2 it cannot be read");
    log->footer(
        "Lines: DATE TIME LEVEL/TAG(PROCESS:THREAD): TEXT, as dlogutil prints them. The level is one of\n"
        "V D I W E F: verbose, debug, information, warning, error, fatal. Most of what the daemon does is\n"
        "logged at E, so that it always reaches the log. Of a journal it is what was logged since the "
        "boot.\n\n"
        "Examples:\n"
        "  zolctl log --since 10m\n"
        "  zolctl log --follow --rule db/menu/picture/backlight\n"
        "  zolctl log --rule pairing --rule org.kaldo.example");
    auto options = std::make_shared<LogOptions>();
    log->add_option("--key", options->keys, "Lines that name this key; may be given more than once")
        ->allow_extra_args(false);
    log->add_option("--rule", options->rules,
                    "Lines of a rule's life: a key, an application's id or pairing, as zolctl status names "
                    "the last hit; may be given more than once")
        ->allow_extra_args(false);
    log->add_option("--level", options->level, "Of this level and above: V D I W E F")
        ->check(CLI::IsMember({"V", "D", "I", "W", "E", "F"}));
    log->add_option("--since", options->since, "Of this time and later: " + std::string(kMomentForms));
    log->add_flag("-f,--follow", options->isFollow, "Go on with what comes until interrupted");
    log->callback([options, &action] { action = [options] { return Log(*options); }; });
}

}  // namespace zolctl
