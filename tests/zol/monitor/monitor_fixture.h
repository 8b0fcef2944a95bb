#pragma once
/// A machine with a remote, a web-app service and a notify manager whose hits can be read.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <new>
#include <thread>
#include <vector>
#include "Event.h"
#include "Task.h"
#include "ZOLNotifyManager.h"
#include "device_test.h"
#include "dlog.h"
#include "failing_new.h"
#include "fake_clock.h"
#include "gate.h"

/// Runs what calls a platform callback again and again, each time with memory for one allocation more, until
/// it has all that it needs.
template <class Action>
void CallShortOfMemory(Action action) {
    std::size_t left = 0;
    for (std::size_t allocation = 1; left == 0; ++allocation) {
        FailAllocation(allocation);
        try {
            action();
        } catch (const std::bad_alloc&) {
            // The fake's own: it was short before it came to the callback.
        }
        left = FailAllocation(0);
    }
}

/// Notes every event that is posted to it; makes reports of vconf hits only.
class RecordingNotify : public TCNotifyManager {
public:
    ~RecordingNotify() override {
        m_gate.Open();
        if (CCTask::FlagCreate()) {
            Destroy();
        }
    }

    /// Blocks the task inside an event: from now on its queue only fills.
    void Hold() {
        PostTo(kHold, false);
        ASSERT_TRUE(m_gate.AwaitArrival());
    }
    void Release() { m_gate.Open(); }
    /// Lets the task handle what is queued, and waits for it.
    void ReleaseAndDrain() {
        Release();
        ASSERT_TRUE(Eventually([this] { return Size() == 0; }));
    }
    /// Indices of the monitor hits posted so far, in order.
    std::vector<long> Hits() {
        PostTo(kFlush, true);
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_hits;
    }
    /// NOTIFY_ZOL_VCONF events posted so far; their reports are made when this returns.
    int VconfEvents() {
        PostTo(kFlush, true);
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_vconfEvents;
    }

    bool t_OnEvent(const CSEvent* event) override {
        if (event->type == kHold) {
            m_gate.Pass();
            return true;
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (event->type == NOTIFY_ZOL_MONITOR) {
            m_hits.push_back(event->param.l[0]);
        } else if (event->type == NOTIFY_ZOL_VCONF) {
            ++m_vconfEvents;
            TCNotifyManager::t_OnEvent(event);
        } else if (event->type != kFlush) {
            ADD_FAILURE() << "unexpected event " << event->type;
        }
        return true;
    }

private:
    static constexpr std::uint32_t kHold = 1000;
    static constexpr std::uint32_t kFlush = 1001;

    void PostTo(std::uint32_t type, bool sync) {
        CSEvent event;
        event.receiver = this;
        event.type = type;
        ASSERT_TRUE(CCTask::Send(&event, sync));
    }

    Gate m_gate;
    std::mutex m_mutex;
    std::vector<long> m_hits;
    int m_vconfEvents = 0;
};

/// Delivers callbacks from a thread of its own until nobody takes one any more.
class Storm {
public:
    /// @param deliver returns false when nobody is registered; the storm has begun when this returns.
    explicit Storm(const std::function<bool()>& deliver)
        : m_thread([this, deliver] {
              while (deliver()) {
                  m_delivered.Add();
              }
          }) {
        EXPECT_TRUE(m_delivered.Await(10));
    }
    /// Waits for its end. @return how many were delivered
    int Join() {
        m_thread.join();
        return m_delivered.Value();
    }

private:
    Counter m_delivered;
    std::thread m_thread;
};

class MonitorFixture : public DeviceTest {
protected:
    using Hits = std::vector<long>;

    MonitorFixture() {
        SurviveAssertions();
        EXPECT_TRUE(m_notify.Create());
    }

    /// Events that fit the notify manager's queue.
    static constexpr std::size_t kQueueLength = 255;

    /// Sets the wall clock to this many seconds after the test's epoch.
    static void At(std::int64_t seconds) { fakes::clock::SetWall(fakes::clock::kEpoch + seconds); }
    RecordingNotify m_notify;
};
