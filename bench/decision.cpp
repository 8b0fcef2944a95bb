/// From setting a key that a rule waits for to the decision: the key service has told the checker, which has
/// judged its rules and told the thread that reports. The product's checker and key store; in the reporting
/// thread's place one that notes the time. Setter and checker are threads of this one process.
///
///   bench_decision ROUNDS RULES
///
/// Prints a line of PrintSamples, "decision/RULES". The keys are memory keys: no disk is in it.
#include <glib.h>
#include <semaphore.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ZOLNotifyManager.h"
#include "ZOLVconfChecker.h"
#include "events/message.h"
#include "samples.h"
#include "vconf.h"

namespace {

constexpr int kAwaited = 7;

std::string KeyOf(int rule) {
    return "memory/bench/decision/key" + std::to_string(rule);
}

class Decisions : public TCNotifyManager {
public:
    explicit Decisions(bench::Message& made) : m_made(made) {
        if (!Create()) {
            std::abort();
        }
    }
    ~Decisions() override { Destroy(); }
    bool t_OnEvent(const CSEvent* /*event*/) override {
        bench::Handle(&m_made);
        return true;
    }

private:
    bench::Message& m_made;
};

std::vector<zol::ZOLVconfMonitor> Rules(int count) {
    std::vector<zol::ZOLVconfMonitor> rules(static_cast<std::size_t>(count));
    for (int rule = 0; rule < count; ++rule) {
        zol::ZOLVconfMonitor& item = rules[static_cast<std::size_t>(rule)];
        item.key = KeyOf(rule);
        item.condition = "IS";
        item.type = "INT";
        item.intValue = kAwaited;
    }
    return rules;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    const int rounds = std::atoi(argv[1]);
    const int count = std::atoi(argv[2]);
    bench::Message made;
    Decisions decisions(made);
    const std::vector<zol::ZOLVconfMonitor> rules = Rules(count);
    zol::TCVconfChecker checker(&decisions, rules);
    if (!checker.Create()) {
        return 1;
    }
    checker.CheckNow(rules);
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    std::thread setter([&] {
        std::vector<std::int64_t> took;
        const std::string key = KeyOf(count / 2);
        for (int round = 0; round < rounds; ++round) {
            const std::int64_t begin = bench::NowNs();
            if (vconf_set_int(key.c_str(), kAwaited) != 0) {
                std::abort();
            }
            made.Await();
            took.push_back(made.handled - begin);
        }
        bench::PrintSamples("decision/" + std::to_string(count), took);
        g_main_loop_quit(loop);
    });
    g_main_loop_run(loop);
    setter.join();
    g_main_loop_unref(loop);
    return 0;
}
