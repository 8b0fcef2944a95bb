/// A client of a running device that stays, driven by bench/device.py: what it measures has no program's
/// start in it.
///
/// Takes commands from the standard input, one a line, answers each sample with a line "MICROSECONDS [WORD]"
/// and the command's end with "done":
///
///   ping ROUNDS                asks the daemon's D-Bus library for a sign of life
///   set-policy ROUNDS FILE     hands a policy over; WORD is what the daemon made of it
///   set ROUNDS KEY [VALUE]     sets an integer key; without a value to one that no rule waits for
///   take ROUNDS                waits for a published path and takes it
///   hit ROUNDS KEY VALUE       sets it to a value that a rule waits for, until a report's path is published,
///                              which is then taken
///
/// Prints "owned NANOSECONDS" when the daemon takes its name on the bus and "running NANOSECONDS" when it
/// says that a policy runs, both at any time, of the monotonic clock.
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "client/client.h"
#include "samples.h"

namespace {

using bench::NowNs;

constexpr const char* kRunningKey = "db/zol/corvel_policy";
constexpr int kUnusual = 100000;

void TellMoment(const char* what) {
    std::cout << std::string(what) + " " + std::to_string(NowNs()) + "\n" << std::flush;
}

void TellSample(std::int64_t took, const std::string& word = "") {
    std::cout << std::to_string(static_cast<double>(took) / 1000) + " " + word + "\n" << std::flush;
}

class Client {
public:
    explicit Client(const bench::Bus& bus) : m_bus(bus) {}

    /// Handles commands until there are no more.
    void Serve() {
        const std::map<std::string, std::function<void(std::istream&)>> commands{
            {"ping", [this](std::istream&) { TellSample(m_bus.Ping()); }},
            {"set-policy", [this](std::istream& words) { m_SetPolicy(words); }},
            {"set", [this](std::istream& words) { m_Set(words); }},
            {"take", [this](std::istream&) { m_Take(); }},
            {"hit", [this](std::istream& words) { m_Hit(words); }}};
        for (std::string line; std::getline(std::cin, line);) {
            std::istringstream words(line);
            std::string command;
            int rounds = 0;
            words >> command >> rounds;
            std::string rest;
            std::getline(words, rest);
            for (int round = 0; round < rounds; ++round) {
                std::istringstream arguments(rest);
                commands.at(command)(arguments);
            }
            std::cout << "done\n" << std::flush;
        }
    }

private:
    void m_SetPolicy(std::istream& words) const {
        std::string path;
        words >> path;
        std::ifstream file(path);
        const std::string document{std::istreambuf_iterator<char>(file), {}};
        std::string outcome;
        const std::int64_t took = m_bus.SetPolicy(document, outcome);
        TellSample(took, outcome);
    }

    void m_Set(std::istream& words) {
        std::string key;
        int value = kUnusual + ++m_count;
        words >> key;
        if (int wanted = 0; words >> wanted) {
            value = wanted;
        }
        const std::int64_t begin = NowNs();
        bench::SetKey(key, value);
        TellSample(NowNs() - begin);
    }

    void m_Take() {
        const std::int64_t begin = NowNs();
        m_collector.AwaitPath();
        m_collector.Take();
        TellSample(NowNs() - begin);
    }

    void m_Hit(std::istream& words) {
        std::string key;
        int value = 0;
        words >> key >> value;
        const std::int64_t begin = NowNs();
        bench::SetKey(key, value);  // the same one again is a change, too
        const std::int64_t published = m_collector.AwaitPath();
        TellSample(published - begin);
        m_collector.Take();
    }

    const bench::Bus& m_bus;
    bench::Collector m_collector;
    int m_count = 0;
};

}  // namespace

int main() {
    const bench::Bus bus;
    bus.WatchName([] { TellMoment("owned"); });
    const base::Subscription running = bench::WatchNumber(kRunningKey, [](int value) {
        if (value != 0) {
            TellMoment("running");
        }
    });
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    std::thread server([&] {
        Client(bus).Serve();
        g_main_loop_quit(loop);
    });
    g_main_loop_run(loop);
    server.join();
    return 0;
}
