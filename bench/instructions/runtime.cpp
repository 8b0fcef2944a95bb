/// The hot paths of the runtime and the parser, on the platform that ships: $ZOL_ROOT is theirs.
#include <semaphore.h>

#include <cstdlib>
#include <string>

#include "Event.h"
#include "Handler.h"
#include "Logging.h"
#include "Task.h"
#include "ZOLPolicy.h"
#include "ZOLPolicyParser.h"
#include "counted.h"
#include "policy_document.h"

namespace {

constexpr unsigned kTypeThatIsOff = LOG_TYPE_I;

class Receiver : public CCTask, public CCHandler {
public:
    Receiver() {
        if (sem_init(&m_handled, 0, 0) != 0 || !CCTask::Create("bench", 8192) || !CCHandler::Create(this)) {
            std::abort();
        }
    }
    ~Receiver() override {
        CCHandler::Destroy();
        ExitLoop();
        CCTask::Destroy();
        sem_destroy(&m_handled);
    }
    void Destroy() override {}
    void SendAndAwait(int events) {
        CSEvent event;
        event.receiver = this;
        for (int sent = 0; sent < events; ++sent) {
            if (!CCTask::Send(&event, false)) {
                std::abort();
            }
        }
        for (int handled = 0; handled < events; ++handled) {
            if (sem_wait(&m_handled) != 0) {
                std::abort();
            }
        }
    }

protected:
    bool t_OnEvent(const CSEvent* /*event*/) override { return sem_post(&m_handled) == 0; }

private:
    sem_t m_handled{};
};

void CountLog() {
    _PRINT(LOG_TYPE_E, "the first line loads the configuration");
    CountInstructions("log line, filtered", 1000,
                      [] { _PRINT(kTypeThatIsOff, "value %d of key %s", 42, "db/menu/backlight"); });
    CountInstructions("log line, emitted", 1000,
                      [] { _PRINT(LOG_TYPE_E, "value %d of key %s", 42, "db/menu/backlight"); });
}

void CountEvent() {
    Receiver receiver;
    // Of a single one it depends on the threads' turns how often the loop looks in vain.
    CountInstructions("a hundred events, sent and handled", 20, [&] { receiver.SendAndAwait(100); });
}

void CountParse() {
    const std::string document = bench::PolicyDocument(1000);
    const zol::TCPolicyParser parser;
    CountInstructions("policy of 1000 items, parsed", 3, [&] {
        zol::ZOLPolicy policy;
        if (!parser.Parse(document, policy) || policy.vconfMonitors.size() != 1000) {
            std::abort();
        }
    });
}

}  // namespace

int main() {
    CountLog();
    CountEvent();
    CountParse();
    return 0;
}
