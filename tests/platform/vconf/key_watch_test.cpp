#include <signal.h>
#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "key_store_fixture.h"

namespace fs = std::filesystem;

namespace {

using child::Process;

/// Changes a key behind the library's back: no doorbell. Arguments: database, statement, what to do then.
int ChangeWithoutRinging(const child::Arguments& arguments) {
    sqlite3* connection = nullptr;
    if (sqlite3_open_v2(arguments[0].c_str(), &connection, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_exec(connection, arguments[1].c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        return 1;
    }
    if (arguments[2] == "die") {
        kill(getpid(), SIGKILL);
    }
    child::Tell("done");
    child::WaitForRelease();
    sqlite3_close(connection);
    return 0;
}
const child::Program kChangeWithoutRinging("change-without-ringing", ChangeWithoutRinging);

constexpr const char* kSetKeyTo7 =
    "UPDATE keys SET type = 1, value = 7, change = (SELECT max(change) + 1 FROM keys) WHERE name = 'db/k'";

class WatchedKey : public KeyStoreTest {
protected:
    bool Watch(const std::string& key, Heard* heard) {
        return Store().Watch(key.c_str(), &Heard::Callback, heard);
    }
    bool Withdraw(const std::string& key, Heard* heard) {
        return Store().Withdraw(key.c_str(), &Heard::Callback, heard);
    }
    /// Sets a key that serves as a mark and serves until its change is heard: all before it is heard, too.
    bool ServeAllSoFar() {
        Heard mark;
        const bool heard =
            Watch("db/mark", &mark) && SetInt("db/mark", 1) && ServeUntil([&] { return mark.calls > 0; });
        Withdraw("db/mark", &mark);
        return heard;
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

TEST_F(WatchedKey, IsHeardWhenItsWriterIsKilledRightAfterTheCommit) {
    Heard heard;
    ASSERT_TRUE(SetInt("db/k", 5));
    ASSERT_TRUE(Watch("db/k", &heard));
    Process writer("change-without-ringing", {Database(), kSetKeyTo7, "die"});
    EXPECT_EQ(writer.Wait(), -SIGKILL);
    EXPECT_TRUE(ServeUntil([&] { return heard.number == 7; }));
}

TEST_F(WatchedKey, IsHeardWhenItsWriterNeitherRingsNorEnds) {
    Heard heard;
    ASSERT_TRUE(SetInt("db/k", 5));
    ASSERT_TRUE(Watch("db/k", &heard));
    Process writer("change-without-ringing", {Database(), kSetKeyTo7, "stay"});
    EXPECT_EQ(writer.ReadLine(), "done");
    EXPECT_TRUE(ServeUntil([&] { return heard.number == 7; }));
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

struct Inside {
    keystore::KeyStore* store;
    int calls = 0;
    int read = 0;
};

TEST_F(WatchedKey, MayBeWithdrawnInsideItsCallback) {
    Inside inside{&Store()};
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
        EXPECT_TRUE(self->store->Withdraw(node->keyname, registered, data));
        ++self->calls;
    };
    registered = withdrawing;
    ASSERT_TRUE(Store().Watch("db/k", registered, &inside));
    ASSERT_TRUE(Store().Watch("db/k", callback, &inside));
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_TRUE(ServeAllSoFar());
    EXPECT_EQ(inside.calls, 2);
    EXPECT_TRUE(Store().Withdraw("db/k", callback, &inside));
    ASSERT_TRUE(SetInt("db/k", 2));
    ASSERT_TRUE(ServeAllSoFar());
    EXPECT_EQ(inside.calls, 2);
}

TEST_F(WatchedKey, MayBeReadAndSetInsideItsCallback) {
    Inside inside{&Store()};
    ASSERT_TRUE(Store().Watch(
        "db/k",
        [](keynode_t* node, void* data) {
            auto* self = static_cast<Inside*>(data);
            keystore::Value value;
            ASSERT_TRUE(self->store->Get(node->keyname, &value));
            self->read = value.number;
            if (++self->calls < 3) {
                EXPECT_TRUE(self->store->Set(node->keyname, {VCONF_TYPE_INT, value.number + 1, {}}));
            }
        },
        &inside));
    ASSERT_TRUE(SetInt("db/k", 1));
    EXPECT_TRUE(ServeUntil([&] { return inside.calls == 3; }));
    EXPECT_EQ(inside.read, 3);
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
        self->finished = true;
    };
    ASSERT_TRUE(Store().Watch("db/k", callback, &slow));
    std::thread other([&] {
        while (!slow.running) {
            std::this_thread::yield();
        }
        slow.withdrawing = true;
        EXPECT_TRUE(Store().Withdraw("db/k", callback, &slow));
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

TEST_F(WatchedKey, IsHeardAfterMoreEventsThanTheQueueHolds) {
    // Nobody serves the context meanwhile: the kernel's queue of 16384 events runs over.
    constexpr int kKeys = 10000;
    std::set<std::string> heard;
    const auto callback = [](keynode_t* node, void* data) {
        static_cast<std::set<std::string>*>(data)->insert(node->keyname);
    };
    for (int index = 0; index < kKeys; ++index) {
        const std::string key = "memory/k" + std::to_string(index);
        ASSERT_TRUE(Store().Watch(key.c_str(), callback, &heard));
        ASSERT_TRUE(SetInt(key, index));
    }
    EXPECT_TRUE(ServeUntil([&] { return heard.size() == kKeys; }));
}

TEST_F(WatchedKey, NeedsNoPolling) {
    Heard heard;
    ASSERT_TRUE(Watch("db/k", &heard));
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_TRUE(ServeUntil([&] { return heard.calls == 1; }));
    EXPECT_TRUE(ServeUntilIdle());
    ASSERT_TRUE(SetInt("db/k", 2));
    EXPECT_TRUE(ServeUntil([&] { return heard.calls == 2; }));
}

TEST_F(WatchedKey, IsHeardAfterItsFolderWasRemoved) {
    Heard heard;
    ASSERT_TRUE(Watch("db/k", &heard));
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_TRUE(ServeUntil([&] { return heard.calls == 1; }));
    fs::remove_all(DurableFolder());
    ASSERT_TRUE(ServeUntil([&] { return fs::exists(Database()); }));
    InAnotherProcess({"int", "db/k", "2"});
    EXPECT_TRUE(ServeUntil([&] { return heard.number == 2; }));
}

}  // namespace
