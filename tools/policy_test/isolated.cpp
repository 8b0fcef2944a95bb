#include "isolated.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "base/system_error.h"
#include "base/unique_fd.h"

namespace policytest {
namespace {

constexpr const char* kMemoryFolder = "/dev/shm";
constexpr std::array<int, 3> kSignals{SIGINT, SIGTERM, SIGHUP};

/// What a process tells of itself, each with a length before it: a place for every step, in the end the
/// failure.
enum class Told : char { PLACE = 'p', FAILURE = 'f', DONE = 'd' };

/// In which a step must end, however slow the machine: a daemon that hangs is told of as one that this signal
/// has ended.
constexpr unsigned kLongestStepSeconds = 600;

volatile sig_atomic_t g_signal = 0;
volatile sig_atomic_t g_child = 0;

/// Ends the child: what waits for it then comes back.
void OnSignal(int number) {
    g_signal = number;
    if (g_child > 0) {
        kill(static_cast<pid_t>(g_child), SIGKILL);
    }
}

void HandleSignals(void (*handler)(int)) {
    for (const int number : kSignals) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigaction(number, &action, nullptr);
    }
}

/// As fork does. A signal that has come, or comes, ends the child.
pid_t Fork() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : kSignals) {
        sigaddset(&signals, number);
    }
    sigset_t before;
    sigprocmask(SIG_BLOCK, &signals, &before);
    const pid_t child = fork();
    if (child == 0) {
        HandleSignals(SIG_DFL);
    } else {
        g_child = child;
        if (g_signal != 0 && child > 0) {
            kill(child, SIGKILL);
        }
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return child;
}

void WriteAll(int fd, const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t written = write(fd, text.data() + at, text.size() - at);
        if (written < 0 && errno != EINTR) {
            _exit(EXIT_FAILURE);  // nobody is there to be told
        }
        at += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

std::string ReadAll(int fd) {
    std::array<char, 65536> block{};
    std::string text;
    for (;;) {
        const ssize_t length = read(fd, block.data(), block.size());
        if (length > 0) {
            text.append(block.data(), static_cast<std::size_t>(length));
        } else if (length == 0 || errno != EINTR) {
            return text;
        }
    }
}

std::string Pack(Told kind, const Place& place, const std::vector<std::string>& texts) {
    std::ostringstream packed;
    packed << static_cast<char>(kind) << ' ' << place.line << ' ' << place.column << ' ' << texts.size()
           << '\n';
    for (const std::string& text : texts) {
        packed << text.size() << '\n' << text;
    }
    return packed.str();
}

std::string Pack(const Failure& failure) {
    std::vector<std::string> texts = failure.reasons;
    texts.insert(texts.begin(), failure.text);
    return Pack(Told::FAILURE, failure.place, texts);
}

/// False at the end, and where a process ended in the middle.
bool Unpack(std::istream& in, Told& kind, Place& place, std::vector<std::string>& texts) {
    char letter = 0;
    std::size_t count = 0;
    if (!(in >> letter >> place.line >> place.column >> count) || in.get() != '\n') {
        return false;
    }
    kind = static_cast<Told>(letter);
    texts.resize(count);
    for (std::string& text : texts) {
        std::size_t length = 0;
        if (!(in >> length) || in.get() != '\n') {
            return false;
        }
        text.resize(length);
        if (!in.read(text.data(), static_cast<std::streamsize>(length))) {
            return false;
        }
    }
    return true;
}

/// The threads of the process take turns anyway, and handing over on one processor takes half the time.
/// Without it, all is the same.
void StayOnThisProcessor() {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(static_cast<unsigned>(std::max(0, sched_getcpu())), &processors);
    static_cast<void>(sched_setaffinity(0, sizeof(processors), &processors));
}

[[noreturn]] void PlayHere(const Scenario& scenario, int out) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    StayOnThisProcessor();
    Place last = scenario.place;
    std::unique_ptr<Player> player;
    try {
        player = std::make_unique<Player>(scenario, [&](const Place& place) {
            last = place;
            alarm(kLongestStepSeconds);
            WriteAll(out, Pack(Told::PLACE, place, {}));
        });
        const std::optional<Failure> failure = player->Play();
        WriteAll(out, failure ? Pack(*failure) : Pack(Told::DONE, last, {}));
    } catch (const std::exception& error) {
        WriteAll(out, Pack(Failure{last, error.what(), {}}));
        // The daemon may hang: its threads end with the process, whatever they are at.
        _exit(EXIT_SUCCESS);
    }
    player.reset();
    std::exit(EXIT_SUCCESS);
}

std::string EndOf(int status) {
    return WIFSIGNALED(status) ? std::string("signal ") + std::to_string(WTERMSIG(status)) + " (" +
                                     strsignal(WTERMSIG(status)) + ")"
                               : "status " + std::to_string(WEXITSTATUS(status));
}

int WaitFor(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

std::optional<Failure> Judge(const Scenario& scenario, const std::string& said, int status) {
    std::istringstream in(said);
    Place place = scenario.place;
    Told kind = Told::PLACE;
    std::vector<std::string> texts;
    while (Unpack(in, kind, place, texts)) {
        if (kind == Told::DONE && status == 0) {
            return std::nullopt;
        }
        if (kind == Told::FAILURE) {
            std::string text = std::move(texts.front());
            texts.erase(texts.begin());
            return Failure{place, std::move(text), std::move(texts)};
        }
    }
    return Failure{place, "the daemon ended here with " + EndOf(status), {}};
}

/// The folder of the scratch files; empty when there is none.
std::string& ScratchFolder() {
    static std::string folder;
    return folder;
}

void RemoveScratch() {
    std::error_code ignored;
    std::filesystem::remove_all(ScratchFolder(), ignored);
}

/// A process leaves what it had.
void EmptyScratch() {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(ScratchFolder(), ignored)) {
        std::filesystem::remove_all(entry.path(), ignored);
    }
}

}  // namespace

Scratch::Scratch() {
    const bool hasMemory = access(kMemoryFolder, W_OK | X_OK) == 0;
    const char* const chosen = std::getenv("TMPDIR");
    const std::string parent = chosen != nullptr ? chosen : hasMemory ? kMemoryFolder : "/tmp";
    std::string folder = parent + "/zol-policy-test-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        throw std::runtime_error("cannot make a folder in " + parent + ": " + base::LastError().message());
    }
    ScratchFolder() = folder;
    setenv("TMPDIR", folder.c_str(), 1);
    HandleSignals(OnSignal);
}

Scratch::~Scratch() {
    RemoveScratch();
    HandleSignals(SIG_DFL);
}

std::optional<Failure> PlayIsolated(const Scenario& scenario) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot make a pipe: " + base::LastError().message());
    }
    base::UniqueFd in(ends[0]);
    base::UniqueFd out(ends[1]);
    const pid_t child = Fork();
    if (child < 0) {
        throw std::runtime_error("cannot start a process: " + base::LastError().message());
    }
    if (child == 0) {
        in.Reset();
        PlayHere(scenario, out.Get());
    }
    out.Reset();
    const std::string said = ReadAll(in.Get());
    const int status = WaitFor(child);
    g_child = 0;
    EmptyScratch();
    if (g_signal != 0) {
        RemoveScratch();
        HandleSignals(SIG_DFL);
        raise(g_signal);
    }
    return Judge(scenario, said, status);
}

}  // namespace policytest
