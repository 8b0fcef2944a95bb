#pragma once
/// A machine with a remote, a web-app service and a notify manager whose hits can be read.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Event.h"
#include "Task.h"
#include "ZOLNotifyManager.h"
#include "fake_clock.h"
#include "fake_dlog.h"
#include "fakes.h"

/// Notes every event that is posted to it; makes reports of vconf hits only.
class RecordingNotify : public TCNotifyManager {
public:
    ~RecordingNotify() override {
        Release();
        if (CCTask::FlagCreate()) {
            Destroy();
        }
    }

    /// Blocks the task inside an event: from now on its queue only fills.
    void Hold() {
        PostTo(kHold, false);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_isHeld; });
    }
    void Release() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isReleased = true;
        m_changed.notify_all();
    }
    /// Lets the task handle what is queued, and waits for it.
    void ReleaseAndDrain() {
        Release();
        while (Size() > 0) {
            std::this_thread::yield();
        }
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
        std::unique_lock<std::mutex> lock(m_mutex);
        if (event->type == kHold) {
            m_isHeld = true;
            m_changed.notify_all();
            m_changed.wait(lock, [this] { return m_isReleased; });
        } else if (event->type == NOTIFY_ZOL_MONITOR) {
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

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isHeld = false;
    bool m_isReleased = false;
    std::vector<long> m_hits;
    int m_vconfEvents = 0;
};

/// Resets the fakes before the members of a fixture are made.
struct FreshMachine {
    FreshMachine() {
        fakes::Reset();
        // With this file in place a failed assertion reports and returns.
        fakes::WriteDeviceFile("/etc/release", "");
    }
};

class MonitorFixture : public testing::Test, FreshMachine {
protected:
    using Hits = std::vector<long>;

    MonitorFixture() { EXPECT_TRUE(m_notify.Create()); }

    /// Events that fit the notify manager's queue.
    static constexpr std::size_t kQueueLength = 255;

    /// Sets the wall clock to this many seconds after the test's epoch.
    static void At(std::int64_t seconds) { fakes::clock::SetWall(fakes::clock::kEpoch + seconds); }
    static int PriorityOf(const std::string& text) { return fakes::dlog::Find(text).priority; }
    static int Logged(const std::string& text) { return fakes::dlog::Count(text); }
    /// Each text was logged by `function`, given as "source: function", from a line of its own.
    static void ExpectPlaces(const std::string& function, const std::vector<std::string>& texts) {
        std::set<std::string> places;
        for (const std::string& text : texts) {
            const std::string line = fakes::dlog::Find("> " + text).text;
            EXPECT_EQ(line.substr(0, line.find('(')), function) << text;
            places.insert(line.substr(0, line.find(" > ")));
        }
        EXPECT_EQ(places.size(), texts.size());
    }

    RecordingNotify m_notify;
};
