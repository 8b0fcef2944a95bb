#pragma once
/// A task whose reactions a test chooses.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "Handler.h"
#include "Task.h"
#include "fake_clock.h"
#include "gate.h"
#include "log_fixture.h"

/// Event codes of TestTask.
enum ETestEvent : std::uint32_t { EVENT_COUNT = 10, EVENT_STOP_AT_GATE = 11, EVENT_CALL = 12 };

class TestTask : public CCTask, public CCHandler {
public:
    bool Create() { return CCTask::Create("TestTask", 8192) && CCHandler::Create(this); }
    void Destroy() override {
        CCHandler::Destroy();
        ExitLoop();
        CCTask::Destroy();
    }

    bool Post(std::uint32_t type, bool sync = false) {
        CSEvent event;
        event.receiver = this;
        event.type = type;
        return Send(&event, sync);
    }
    /// Runs `call` on the task's thread and waits for it.
    void Run(std::function<void()> call) {
        onCall = std::move(call);
        EXPECT_TRUE(Post(EVENT_CALL, true));
    }

    Gate gate;      // EVENT_STOP_AT_GATE stops here
    Counter count;  // EVENT_COUNT
    Counter fired;  // every timer
    Counter idle;
    std::function<void()> onCall;
    std::function<void(unsigned long)> onTimer;
    std::function<bool()> onStart;
    std::function<void()> onStop;
    std::function<bool()> onExit;

    using CCTask::t_ExecuteEvent;
    using CCTask::t_InsertTimerEvent;
    using CCTask::t_KillTimer;
    using CCTask::t_SetTimer;

protected:
    bool t_OnEvent(const CSEvent* event) override {
        if (event->type == EVENT_COUNT) {
            count.Add();
        } else if (event->type == EVENT_STOP_AT_GATE) {
            gate.Pass();
        } else if (event->type == EVENT_CALL) {
            onCall();
        }
        return true;
    }
    void t_OnTimer(unsigned long id) override {
        if (onTimer) {
            onTimer(id);
        }
        fired.Add();
    }
    bool t_OnStart() override { return !onStart || onStart(); }
    void t_OnStop() override {
        if (onStop) {
            onStop();
        }
    }
    void t_OnIdle() override { idle.Add(); }
    bool OnExit(const CSEvent* /*event*/) override { return !onExit || onExit(); }
};

class TaskFixture : public RuntimeLog {
protected:
    using ms = std::chrono::milliseconds;

    /// Waits until the loop has nothing to do for so long.
    static bool AwaitPause(std::chrono::nanoseconds left = fakes::clock::kForever) {
        return fakes::clock::AwaitSleeper(left);
    }
};
