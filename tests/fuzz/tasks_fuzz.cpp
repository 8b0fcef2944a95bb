/// Drives a task and its handlers, and a queue of the standard library's beside it.
#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "Handler.h"
#include "Task.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "fuzz_target.h"
#include "gate.h"
#include "waiting.h"

namespace {

using fuzz::Input;
using fuzz::Require;
using std::chrono::milliseconds;

constexpr std::size_t kReceivers = 4;
constexpr unsigned kRoom = CCTask::kQueueSlots - 1;

/// What an event makes its receiver do beside noting it.
enum EType : std::uint32_t { NOTE, POST_TO_NEXT, CALL_NEXT, TYPES };

struct Note {
    std::size_t receiver;
    std::uint32_t type;
    bool operator==(const Note& other) const { return receiver == other.receiver && type == other.type; }
};

class Notes {
public:
    void Add(Note note) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_notes.push_back(note);
        m_changed.notify_all();
    }
    /// Waits until there are so many.
    std::vector<Note> Take(std::size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, kPatience, [&] { return m_notes.size() >= count; });
        return std::exchange(m_notes, {});
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Note> m_notes;
};

bool Post(CCHandler& receiver, std::uint32_t type, bool sync) {
    CSEvent event;
    event.receiver = &receiver;
    event.type = type;
    return CCTask::Send(&event, sync);
}

class Receiver : public CCHandler {
public:
    void Begin(std::size_t index, Receiver* next, Notes* notes) {
        m_index = index;
        m_next = next;
        m_notes = notes;
    }
    Counter fired;

protected:
    bool t_OnEvent(const CSEvent* event) override {
        m_notes->Add({m_index, event->type});
        if (event->type != NOTE) {
            // Fails where nobody is bound.
            static_cast<void>(Post(*m_next, NOTE, event->type == CALL_NEXT));
        }
        return true;
    }
    void t_OnTimer(unsigned long /*id*/) override { fired.Add(); }

private:
    std::size_t m_index = 0;
    Receiver* m_next = nullptr;
    Notes* m_notes = nullptr;
};

/// Always bound: stops the task's thread at a gate.
class Stopper : public CCHandler {
public:
    enum : std::uint32_t { STOP, NOTHING };
    Gate gate;

protected:
    bool t_OnEvent(const CSEvent* event) override {
        if (event->type == STOP) {
            gate.Pass();
        }
        return true;
    }
};

/// The task's thread stands at the gate but for the moments in which it handles all that was sent.
class Run {
public:
    Run() {
        Require(m_task.Create("fuzz", 8192) && m_stopper.Create(&m_task), "creating a task");
        for (std::size_t index = 0; index < kReceivers; ++index) {
            m_receivers[index].Begin(index, &m_receivers[Next(index)], &m_notes);
            Bind(index);
        }
        StopAtGate();
    }

    ~Run() {
        HandleAll();
        for (std::size_t index = 0; index < kReceivers; ++index) {
            Unbind(index);
        }
        m_stopper.gate.Open();
        m_stopper.Destroy();
        Require(m_task.ExitLoop(), "ending a task");
        m_task.Destroy();
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void Step(Input& input) {
        const std::size_t index = input.Below(kReceivers);
        const auto type = static_cast<EType>(input.Below(TYPES));
        switch (input.Below(8)) {
            case 0:
                Unbind(index);
                break;
            case 1:
                Bind(index);
                break;
            case 2:
                HandleAll();
                break;
            case 3:
                TimeOut(index, 1 + input.Byte());
                break;
            case 4:
                for (unsigned count = input.Byte(); count > 0; --count) {
                    Send(index, type);
                }
                break;
            default:
                Send(index, type);
        }
    }

private:
    static std::size_t Next(std::size_t index) { return (index + 1) % kReceivers; }

    void Bind(std::size_t index) {
        if (!m_isBound[index]) {
            Require(m_receivers[index].Create(&m_task), "binding a handler");
            m_isBound[index] = true;
        }
    }

    /// Drops what waits for the handler; the events keep their places in the queue.
    void Unbind(std::size_t index) {
        if (m_isBound[index]) {
            m_receivers[index].Destroy();
            m_isBound[index] = false;
            m_sent.erase(std::remove_if(m_sent.begin(), m_sent.end(),
                                        [&](const Note& note) { return note.receiver == index; }),
                         m_sent.end());
        }
    }

    void Send(std::size_t index, EType type) {
        const bool fits = m_isBound[index] && m_places < kRoom;
        Require(Post(m_receivers[index], type, false) == fits, "sending an event");
        if (fits) {
            m_sent.push_back({index, type});
            ++m_places;
        }
    }

    void StopAtGate() {
        Require(Post(m_stopper, Stopper::STOP, false), "sending the last event");
        Require(m_stopper.gate.AwaitArrival(++m_stops), "reaching the last event");
    }

    /// The order in which the receivers must have been called.
    std::vector<Note> Expected() {
        std::vector<Note> expected;
        while (!m_sent.empty()) {
            const Note note = m_sent.front();
            m_sent.pop_front();
            expected.push_back(note);
            const Note next{Next(note.receiver), NOTE};
            if (note.type == CALL_NEXT && m_isBound[next.receiver]) {
                expected.push_back(next);
            } else if (note.type == POST_TO_NEXT && m_isBound[next.receiver]) {
                m_sent.push_back(next);
            }
        }
        return expected;
    }

    void HandleAll() {
        const std::vector<Note> expected = Expected();
        m_places = 0;
        m_stopper.gate.Open();
        Require(m_notes.Take(expected.size()) == expected, "the order of events");
        // Dropped events may still fill the queue.
        Require(Eventually([&] { return Post(m_stopper, Stopper::NOTHING, true); }), "a synchronous event");
        Require(m_notes.Take(0).empty(), "nothing but the events sent");
        StopAtGate();
    }

    /// A timer fires when its time is over, not before, and not once it has been killed.
    void TimeOut(std::size_t index, unsigned length) {
        Receiver& receiver = m_receivers[index];
        if (!m_isBound[index]) {
            return;
        }
        HandleAll();
        const int before = receiver.fired.Value();
        Require(receiver.SetTimer(index, length), "setting a timer");
        fakes::clock::Advance(milliseconds(length - 1));
        HandleAll();
        HandleAll();
        Require(receiver.fired.Value() == before, "a timer before its time");
        // First: a loop that has just seen the old time would pause for the rest of it.
        fakes::clock::Advance(milliseconds(1));
        m_stopper.gate.Open();
        Require(receiver.fired.Await(before + 1), "a timer at its time");
        Require(receiver.KillTimer(index) && !receiver.KillTimer(index), "killing a timer");
        fakes::clock::Advance(milliseconds(2 * length));
        StopAtGate();
        HandleAll();
        Require(receiver.fired.Value() == before + 1, "a killed timer");
    }

    CCTask m_task;
    Stopper m_stopper;
    int m_stops = 0;
    Notes m_notes;
    std::array<Receiver, kReceivers> m_receivers;
    std::array<bool, kReceivers> m_isBound{};
    std::deque<Note> m_sent;
    unsigned m_places = 0;  // taken in the queue
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fakes::dlog::Clear();
    Input input(data, size);
    Run run;
    while (!input.IsEmpty()) {
        run.Step(input);
    }
    return 0;
}
