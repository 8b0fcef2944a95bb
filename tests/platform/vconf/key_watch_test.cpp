#include <glib.h>
#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "key_store_fixture.h"
#include "waiting.h"

namespace {

using child::Process;

class WatchedKey : public KeyStoreTest {
protected:
    static bool Watch(const std::string& key, Heard* heard) { return heard->Watch(key); }
    static bool Withdraw(const std::string& key, Heard* heard) { return heard->Withdraw(key); }
    /// Sets a key that serves as a mark and serves until its change is heard: all before it is heard, too.
    static bool ServeAllSoFar() {
        Heard mark;
        return mark.Watch("db/mark") && SetInt("db/mark", 1) && ServeUntil([&] { return mark.calls > 0; });
    }
};

TEST_F(WatchedKey, ChangedByAnotherProcessIsHeardWithItsTypeAndValue) {
    Heard heard;
    ASSERT_TRUE(Watch("db/k", &heard));
    InAnotherProcess({"int", "db/k", "-5"});
    ASSERT_TRUE(ServeUntil([&] { return heard.calls == 1; }));
    EXPECT_EQ(heard.key, "db/k");
    EXPECT_EQ(heard.type, VCONF_TYPE_INT);
    EXPECT_EQ(heard.number, -5);
    InAnotherProcess({"str", "db/k", "text"});
    ASSERT_TRUE(ServeUntil([&] { return heard.calls == 2; }));
    EXPECT_EQ(heard.type, VCONF_TYPE_STRING);
    EXPECT_EQ(heard.text, "text");
    InAnotherProcess({"bool", "db/k", "1"});
    ASSERT_TRUE(ServeUntil([&] { return heard.calls == 3; }));
    EXPECT_EQ(heard.type, VCONF_TYPE_BOOL);
    EXPECT_EQ(heard.number, 1);
}

TEST_F(WatchedKey, OfTheMemoryFolderIsHeardToo) {
    Heard heard;
    ASSERT_TRUE(Watch("memory/k", &heard));
    InAnotherProcess({"int", "memory/k", "5"});
    EXPECT_TRUE(ServeUntil([&] { return heard.number == 5; }));
}

TEST_F(WatchedKey, ChangedByThisProcessIsHeardFromTheMainContextOnly) {
    Heard heard;
    ASSERT_TRUE(Watch("db/k", &heard));
    ASSERT_TRUE(SetInt("db/k", 5));
    EXPECT_EQ(heard.calls, 0);
    EXPECT_TRUE(ServeUntil([&] { return heard.calls == 1; }));
}

TEST_F(WatchedKey, SetToTheSameValueIsHeardAgain) {
    Heard heard;
    ASSERT_TRUE(SetInt("db/k", 5));
    ASSERT_TRUE(Watch("db/k", &heard));
    ASSERT_TRUE(SetInt("db/k", 5));
    EXPECT_TRUE(ServeUntil([&] { return heard.calls == 1; }));
    ASSERT_TRUE(SetInt("db/k", 5));
    EXPECT_TRUE(ServeUntil([&] { return heard.calls == 2; }));
}

TEST_F(WatchedKey, IsNotHeardOfChangesBeforeTheRegistration) {
    Heard first;
    Heard second;
    ASSERT_TRUE(Watch("db/k", &first));
    ASSERT_TRUE(SetInt("db/k", 5));
    ASSERT_TRUE(Watch("db/k", &second));
    ASSERT_TRUE(ServeAllSoFar());
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(second.calls, 0);
}

TEST_F(WatchedKey, ThatIsRemovedIsHeardWithoutAType) {
    Heard heard;
    ASSERT_TRUE(SetInt("db/k", 5));
    ASSERT_TRUE(Watch("db/k", &heard));
    InAnotherProcess({"unset", "db/k"});
    ASSERT_TRUE(ServeUntil([&] { return heard.calls == 1; }));
    EXPECT_EQ(heard.type, VCONF_TYPE_NONE);
    InAnotherProcess({"unset", "db/k"});
    ASSERT_TRUE(ServeAllSoFar());
    EXPECT_EQ(heard.calls, 1);
}

TEST_F(WatchedKey, ShowsTheLastOfAThousandChangesOfManyWriters) {
    constexpr int kWriters = 4;
    constexpr int kChanges = 250;
    std::vector<Heard> heard(kWriters);
    for (int writer = 0; writer < kWriters; ++writer) {
        ASSERT_TRUE(Watch("memory/k" + std::to_string(writer), &heard[static_cast<std::size_t>(writer)]));
    }
    std::vector<Process> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        std::vector<std::string> calls;
        for (int value = 1; value <= kChanges; ++value) {
            calls.insert(calls.end(), {"int", "memory/k" + std::to_string(writer), std::to_string(value)});
        }
        writers.emplace_back("vconf", calls, Root());
    }
    for (const Heard& one : heard) {
        EXPECT_TRUE(ServeUntil([&] { return one.number == kChanges; }));
        EXPECT_LE(one.calls, kChanges);
    }
    for (Process& writer : writers) {
        const std::string answers = writer.ReadAll();
        EXPECT_EQ(writer.Wait(), 0);
        EXPECT_EQ(answers.find('-'), std::string::npos) << "a set failed";
    }
}

TEST_F(WatchedKey, RegisteredTwiceIsHeardOnceAndMustBeWithdrawnTwice) {
    Heard heard;
    ASSERT_TRUE(Watch("db/k", &heard));
    ASSERT_TRUE(Watch("db/k", &heard));
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_TRUE(ServeAllSoFar());
    EXPECT_EQ(heard.calls, 1);
    EXPECT_TRUE(Withdraw("db/k", &heard));
    ASSERT_TRUE(SetInt("db/k", 2));
    ASSERT_TRUE(ServeAllSoFar());
    EXPECT_EQ(heard.calls, 2);
    EXPECT_TRUE(Withdraw("db/k", &heard));
    ASSERT_TRUE(SetInt("db/k", 3));
    ASSERT_TRUE(ServeAllSoFar());
    EXPECT_EQ(heard.calls, 2);
    EXPECT_FALSE(Withdraw("db/k", &heard));
}

TEST_F(WatchedKey, IsHeardByEveryoneWhoWatchesIt) {
    Heard first;
    Heard second;
    ASSERT_TRUE(Watch("db/k", &first));
    ASSERT_TRUE(Watch("db/k", &second));
    ASSERT_TRUE(SetInt("db/k", 1));
    EXPECT_TRUE(ServeUntil([&] { return first.calls == 1 && second.calls == 1; }));
}

struct Listener {
    std::string name;
    std::vector<std::string>* calls;
};

TEST_F(WatchedKey, IsHeardByItsWatchersInTheOrderInWhichTheyCame) {
    std::vector<std::string> calls;
    Listener first{"first", &calls};
    Listener second{"second", &calls};
    Listener third{"third", &calls};
    const auto callback = [](keynode_t*, void* data) {
        const auto* self = static_cast<Listener*>(data);
        self->calls->push_back(self->name);
    };
    for (Listener* listener : {&first, &second, &third}) {
        ASSERT_EQ(vconf_notify_key_changed("db/k", callback, listener), 0);
    }
    ASSERT_EQ(vconf_withdraw_key_changed("db/k", callback, &second), 0);
    ASSERT_EQ(vconf_notify_key_changed("db/k", callback, &second), 0);
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_TRUE(ServeAllSoFar());
    EXPECT_THAT(calls, testing::ElementsAre("first", "third", "second"));
    for (Listener* listener : {&first, &second, &third}) {
        EXPECT_EQ(vconf_withdraw_key_changed("db/k", callback, listener), 0);
    }
}

struct Inside {
    int calls = 0;
    int read = 0;
};

TEST_F(WatchedKey, MayBeWithdrawnInsideItsCallback) {
    Inside inside;
    const auto callback = [](keynode_t* node, void* data) {
        auto* self = static_cast<Inside*>(data);
        ++self->calls;
        EXPECT_EQ(node->int_value, 1);
        // The lambda cannot name itself: the store knows it by the pointer that the test registered.
        self->read = 1;
    };
    static vconf_callback_fn registered = nullptr;
    const auto withdrawing = [](keynode_t* node, void* data) {
        auto* self = static_cast<Inside*>(data);
        EXPECT_EQ(vconf_withdraw_key_changed(node->keyname, registered, data), 0);
        ++self->calls;
    };
    registered = withdrawing;
    ASSERT_TRUE(vconf_notify_key_changed("db/k", registered, &inside) == 0);
    ASSERT_TRUE(vconf_notify_key_changed("db/k", callback, &inside) == 0);
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_TRUE(ServeAllSoFar());
    EXPECT_EQ(inside.calls, 2);
    EXPECT_EQ(vconf_withdraw_key_changed("db/k", callback, &inside), 0);
    ASSERT_TRUE(SetInt("db/k", 2));
    ASSERT_TRUE(ServeAllSoFar());
    EXPECT_EQ(inside.calls, 2);
}

TEST_F(WatchedKey, MayBeReadAndSetInsideItsCallback) {
    Inside inside;
    const auto callback = [](keynode_t* node, void* data) {
        auto* self = static_cast<Inside*>(data);
        self->read = GetInt(node->keyname);
        if (++self->calls < 3) {
            EXPECT_TRUE(SetInt(node->keyname, self->read + 1));
        }
    };
    ASSERT_EQ(vconf_notify_key_changed("db/k", callback, &inside), 0);
    ASSERT_TRUE(SetInt("db/k", 1));
    EXPECT_TRUE(ServeUntil([&] { return inside.calls == 3; }));
    EXPECT_EQ(inside.read, 3);
    EXPECT_EQ(vconf_withdraw_key_changed("db/k", callback, &inside), 0);
}

struct Slow {
    std::atomic<bool> running{false};
    std::atomic<bool> withdrawing{false};
    std::atomic<bool> finished{false};
};

TEST_F(WatchedKey, WithdrawnByAnotherThreadIsNotBeingHeardAnyMore) {
    Slow slow;
    const auto callback = [](keynode_t*, void* data) {
        auto* self = static_cast<Slow*>(data);
        self->running = true;
        while (!self->withdrawing) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // in which nothing may return
        self->finished = true;
    };
    ASSERT_TRUE(vconf_notify_key_changed("db/k", callback, &slow) == 0);
    std::thread other([&] {
        while (!slow.running) {
            std::this_thread::yield();
        }
        slow.withdrawing = true;
        EXPECT_EQ(vconf_withdraw_key_changed("db/k", callback, &slow), 0);
        EXPECT_TRUE(slow.finished);
    });
    ASSERT_TRUE(SetInt("db/k", 1));
    EXPECT_TRUE(ServeUntil([&] { return slow.finished.load(); }));
    other.join();
}

TEST_F(WatchedKey, MayBeWatchedAndWithdrawnByThreadsWhileChangesArrive) {
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int index = 0; index < 2; ++index) {
        threads.emplace_back([&, index] {
            for (int round = 0; round < 50; ++round) {
                Heard heard;
                const std::string key = "memory/k" + std::to_string(index);
                EXPECT_TRUE(Watch(key, &heard));
                EXPECT_TRUE(SetInt(key, round));
                EXPECT_TRUE(Withdraw(key, &heard));
            }
        });
    }
    std::thread joiner([&] {
        for (std::thread& thread : threads) {
            thread.join();
        }
        done = true;
    });
    EXPECT_TRUE(ServeUntil([&] { return done.load(); }));
    joiner.join();
}

TEST_F(WatchedKey, AmongTenThousandIsTheOnlyOneHeard) {
    constexpr int kKeys = 10000;
    std::vector<Heard> heard(kKeys);
    for (int index = 0; index < kKeys; ++index) {
        ASSERT_TRUE(Watch("memory/k" + std::to_string(index), &heard[static_cast<std::size_t>(index)]));
    }
    InAnotherProcess({"int", "memory/k7777", "1"});
    ASSERT_TRUE(ServeUntil([&] { return heard[7777].calls > 0; }));
    int calls = 0;
    for (const Heard& one : heard) {
        calls += one.calls;
    }
    EXPECT_EQ(calls, 1);
}

TEST_F(WatchedKey, ChangedSeveralTimesBeforeItIsServedShowsTheLast) {
    Heard heard;
    Heard other;
    ASSERT_TRUE(Watch("db/k", &heard));
    for (int value = 1; value <= 3; ++value) {
        ASSERT_TRUE(SetInt("db/k", value));
    }
    // The answer to this comes behind the changes.
    ASSERT_TRUE(Watch("db/other", &other));
    ASSERT_TRUE(ServeUntil([&] { return heard.calls > 0; }));
    EXPECT_EQ(heard.number, 3);
    EXPECT_EQ(heard.calls, 1);
}

TEST_F(WatchedKey, IsHeardAfterMoreChangesThanTheSocketHolds) {
    // Nobody serves the context meanwhile. Each key is changed twice: the last change counts.
    constexpr int kKeys = 2000;
    std::map<std::string, int> heard;
    const auto callback = [](keynode_t* node, void* data) {
        (*static_cast<std::map<std::string, int>*>(data))[node->keyname] = node->int_value;
    };
    const auto key = [](int index) { return "memory/k" + std::to_string(index); };
    for (int index = 0; index < kKeys; ++index) {
        ASSERT_EQ(vconf_notify_key_changed(key(index).c_str(), callback, &heard), 0);
    }
    for (int round = 1; round <= 2; ++round) {
        for (int index = 0; index < kKeys; ++index) {
            ASSERT_TRUE(SetInt(key(index), round * kKeys + index));
        }
    }
    EXPECT_TRUE(ServeUntil([&] { return heard.size() == kKeys && heard[key(kKeys - 1)] == 3 * kKeys - 1; }));
    ASSERT_TRUE(ServeAllSoFar());
    for (int index = 0; index < kKeys; ++index) {
        EXPECT_EQ(heard[key(index)], 2 * kKeys + index);
        EXPECT_EQ(vconf_withdraw_key_changed(key(index).c_str(), callback, &heard), 0);
    }
}

TEST_F(WatchedKey, WaitsWithoutPolling) {
    Heard heard;
    ASSERT_TRUE(Watch("db/k", &heard));
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_TRUE(ServeUntil([&] { return heard.calls == 1; }));
    GMainContext* const context = g_main_context_default();
    gint priority = 0;
    gint timeout = 0;
    std::array<GPollFD, 8> fds;
    ASSERT_TRUE(g_main_context_acquire(context));
    EXPECT_FALSE(g_main_context_prepare(context, &priority));
    g_main_context_query(context, priority, &timeout, fds.data(), static_cast<gint>(fds.size()));
    g_main_context_release(context);
    EXPECT_EQ(timeout, -1);
}

}  // namespace
