/// What is found in the place of the store's files: damage, and the store that earlier versions shared.
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "base/sqlite_handles.h"
#include "files.h"
#include "key_store_fixture.h"
#include "waiting.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kOldSchema =
    "PRAGMA journal_mode=WAL;"
    "CREATE TABLE keys(name TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, value,"
    " change INTEGER NOT NULL) WITHOUT ROWID;"
    "CREATE UNIQUE INDEX keys_by_change ON keys(change);";
const std::string kRubbish(5000, 'x');
/// Whoever changes a key never gets to the end of it.
const std::string kEndlessTrigger =
    "CREATE TRIGGER t AFTER INSERT ON keys BEGIN SELECT count(*) FROM "
    "(WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i FROM n) SELECT i FROM n); END";

/// Runs statements on a database; the connection stays open as long as the result lives.
base::DatabasePtr Execute(const std::string& path, const std::string& statements) {
    sqlite3* raw = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(raw, statements.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(raw);
    return base::DatabasePtr(raw);
}

/// The service does not run while the test works on its files.
class StoreFiles : public KeyStoreTest {
protected:
    /// Fills the store with a key and lets go of its files.
    void SetAndEnd() {
        ASSERT_TRUE(SetInt("db/k", 1));
        Service().Kill();
    }
    /// Starts on what is there now.
    std::string SetInTheNextOne() {
        Service().Start();
        return InAnotherProcess({"get", "db/k", "int", "db/k", "4", "get", "db/k"});
    }
    static std::string Damaged() { return ReadFile(Database() + ".damaged"); }
};

TEST_F(StoreFiles, AreForTheServiceAlone) {
    const mode_t before = umask(0);
    Service().Kill();
    fs::remove_all(Root() + "/var/lib/zol");
    Service().Start();
    ASSERT_TRUE(SetInt("db/k", 1));
    umask(before);
    EXPECT_EQ(fs::status(DurableFolder()).permissions(), fs::perms::owner_all);
    for (const char* name : {"/vconf.db", "/vconf.db-wal", "/service.lock"}) {
        EXPECT_EQ(fs::status(DurableFolder() + name).permissions(),
                  fs::perms::owner_read | fs::perms::owner_write)
            << name;
    }
    // Whoever could shorten it would end the service.
    EXPECT_FALSE(fs::exists(Database() + "-shm"));
}

TEST_F(StoreFiles, ThatAreDamagedAreSetAsideWholeAndANewStoreIsBegun) {
    SetAndEnd();
    const std::string log = ReadFile(Database() + "-wal");
    ASSERT_FALSE(log.empty());
    for (const char* round : {"1", "2"}) {
        Service().Kill();
        WriteFile(Database(), kRubbish + round);
        EXPECT_EQ(SetInTheNextOne(), "none\n0\nint 4\n");
        EXPECT_TRUE(Damaged() == kRubbish + round);
    }
    EXPECT_EQ(Log().Count("is damaged (file is not a database): set aside as"), 2);
    EXPECT_EQ(Log().Count(""), 2);
}

TEST_F(StoreFiles, WithoutTheDatabaseLeaveTheLogToBeSetAside) {
    SetAndEnd();
    const std::string log = ReadFile(Database() + "-wal");
    fs::remove(Database());
    EXPECT_EQ(SetInTheNextOne(), "none\n0\nint 4\n");
    EXPECT_TRUE(ReadFile(Database() + ".damaged-wal") == log);
}

TEST_F(StoreFiles, ThatHoldSomethingElseAreSetAside) {
    const std::vector<std::string> changes = {
        kEndlessTrigger,
        "CREATE VIEW v AS SELECT 1",
        "CREATE TABLE other(x)",
        "DROP TABLE keys",
        "DROP TABLE keys; CREATE VIEW keys AS SELECT 'db/k' name, 1 type, 1 value, 1 change, 0 owner",
        "UPDATE keys SET change = 9223372036854775807",
        "UPDATE keys SET change = -1",
    };
    for (const std::string& change : changes) {
        SetAndEnd();
        Execute(Database(), change);
        EXPECT_EQ(SetInTheNextOne(), "none\n0\nint 4\n") << change;
    }
    Service().Kill();
    WriteFile(Database(), "");
    EXPECT_EQ(SetInTheNextOne(), "none\n0\nint 4\n");
    EXPECT_EQ(Log().Count("is damaged"), static_cast<int>(changes.size()) + 1);
}

TEST_F(StoreFiles, AreNotMadeThroughLinksThatLieInTheWay) {
    Service().Kill();
    const std::string precious = Root() + "/precious";
    WriteFile(precious, "not a store");
    fs::create_directories(OldFolder());
    Execute(OldFolder() + "/vconf.db", std::string(kOldSchema) + "INSERT INTO keys VALUES('db/k', 1, 7, 1)");
    fs::remove_all(DurableFolder());
    fs::create_directories(DurableFolder());
    fs::permissions(DurableFolder(), fs::perms::owner_all);
    for (const char* end : {".new", ".taken", ".taken-wal", ".taken-journal"}) {
        fs::create_symlink(precious, Database() + end);
    }
    Service().Start();
    EXPECT_EQ(Get("db/k"), "int 7");
    EXPECT_EQ(ReadFile(precious), "not a store");
}

TEST_F(StoreFiles, CutAtAnyPageAreReadOrSetAside) {
    for (int index = 0; index < 300; ++index) {
        ASSERT_TRUE(SetInt("db/k" + std::to_string(index), index));
    }
    Service().Kill();
    Execute(Database(), "PRAGMA journal_mode=DELETE");
    const std::string whole = ReadFile(Database());
    ASSERT_GT(whole.size(), 8192U);
    for (std::size_t length = 0; length < whole.size(); length += 1024) {
        Service().Kill();
        fs::remove(Database() + "-wal");
        WriteFile(Database(), whole.substr(0, length));
        Service().Start();
        EXPECT_TRUE(SetInt("db/k", 4)) << length;
        EXPECT_EQ(GetInt("db/k"), 4) << length;
    }
}

TEST_F(StoreFiles, DamagedWhileInUseGiveWayAndWatchersHearOfIt) {
    const std::string memory = MemoryFolder() + "/vconf.db";
    Heard heard;
    ASSERT_TRUE(SetInt("memory/k", 1));
    for (int index = 0; index < 3000; ++index) {
        ASSERT_EQ(
            vconf_set_str(("memory/key" + std::to_string(index)).c_str(), std::string(500, 'x').c_str()), 0);
    }
    ASSERT_TRUE(heard.Watch("memory/k"));
    WriteFile(memory, kRubbish);
    WriteFile(memory + "-wal", kRubbish);
    EXPECT_TRUE(Eventually([&] {
        for (int index = 0; index < 3000; ++index) {
            Get("memory/key" + std::to_string(index));
        }
        return fs::exists(memory + ".damaged");
    }));
    EXPECT_EQ(GetInt("memory/k"), -1);
    EXPECT_TRUE(ServeUntil([&] { return heard.calls == 1; }));
    EXPECT_EQ(heard.type, VCONF_TYPE_NONE);
    ASSERT_TRUE(SetInt("memory/k", 5));
    EXPECT_TRUE(ServeUntil([&] { return heard.number == 5; }));
}

TEST_F(StoreFiles, OnAFullDiskKeepTheOldValueAndTakeANewOneLater) {
    Service().Kill();
    void (*const handler)(int) = std::signal(SIGXFSZ, SIG_IGN);
    Service().Start();
    std::signal(SIGXFSZ, handler);
    // The limit holds for the log of the service's words, too: that is to stay below it.
    const std::string words = Root() + "/var/log/zol/main.log";
    do {
        ASSERT_TRUE(SetInt("db/k", 1));
    } while (fs::exists(words) && fs::file_size(Database() + "-wal") < fs::file_size(words) + 4096);
    rlimit before{};
    const rlimit full{static_cast<rlim_t>(fs::file_size(Database() + "-wal")), RLIM_INFINITY};
    ASSERT_EQ(prlimit(Service().Pid(), RLIMIT_FSIZE, &full, &before), 0);
    EXPECT_FALSE(SetInt("db/k", 2));
    EXPECT_FALSE(SetInt("db/k", 3));
    EXPECT_EQ(GetInt("db/k"), 1);
    EXPECT_EQ(Log().Count("cannot be written"), 1);
    ASSERT_EQ(prlimit(Service().Pid(), RLIMIT_FSIZE, &before, nullptr), 0);
    EXPECT_TRUE(SetInt("db/k", 4));
    EXPECT_EQ(GetInt("db/k"), 4);
    EXPECT_FALSE(fs::exists(Database() + ".damaged"));
}

/// What earlier versions shared with everyone in the group.
class OldStore : public KeyStoreTest {
protected:
    OldStore() {
        Service().Kill();
        fs::create_directories(OldFolder());
        fs::permissions(OldFolder(), fs::perms(0770));
    }
    static std::string Path() { return OldFolder() + "/vconf.db"; }
    /// Closed without folding the log into the database, as by a process that was killed.
    static void Make(const std::string& statements) {
        const base::DatabasePtr old = Execute(Path(), kOldSchema + statements);
        sqlite3_db_config(old.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    }
    static void PutBack() {
        for (const char* end : {"", "-wal"}) {
            fs::rename(Path() + ".old" + end, Path() + end);
        }
    }
    void ExpectLeftAlone(const std::string& what) {
        Service().Start();
        EXPECT_EQ(InAnotherProcess({"get", "db/k", "int", "db/k", "4", "get", "db/k"}), "none\n0\nint 4\n")
            << what;
        Service().Kill();
        EXPECT_TRUE(fs::exists(fs::symlink_status(Path()))) << what;
        fs::remove_all(DurableFolder());
        fs::remove_all(OldFolder());
        fs::create_directories(OldFolder());
    }
};

TEST_F(OldStore, IsTakenOverOnce) {
    Make(
        "INSERT INTO keys VALUES('db/k', 1, 7, 1), ('file/s', 2, 'text', 2), ('db/b', 3, 1, 3), "
        "('db/removed', 0, NULL, 9223372036854775807)");
    Service().Start();
    EXPECT_EQ(Get("db/k"), "int 7");
    EXPECT_EQ(Get("file/s"), "str text");
    EXPECT_EQ(Get("db/b"), "bool 1");
    EXPECT_EQ(Get("db/removed"), "none");
    EXPECT_EQ(Log().Count("3 keys taken over, 0 left out"), 1);
    EXPECT_FALSE(fs::exists(Path()));
    EXPECT_TRUE(fs::exists(Path() + ".old"));
    ASSERT_TRUE(SetInt("db/k", 8));
    PutBack();
    Service().Kill();
    Service().Start();
    EXPECT_EQ(Get("db/k"), "int 8");
    EXPECT_FALSE(fs::exists(Database() + ".taken"));
}

TEST_F(OldStore, IsNotTakenOverOnceMoreInPlaceOfADamagedStore) {
    Make("INSERT INTO keys VALUES('db/k', 1, 7, 1)");
    Service().Start();
    EXPECT_EQ(Get("db/k"), "int 7");
    Service().Kill();
    PutBack();
    WriteFile(Database(), kRubbish);
    Service().Start();
    EXPECT_EQ(Get("db/k"), "none");
}

TEST_F(OldStore, HandsOverOnlyWhatAKeyCanBe) {
    Make(
        "INSERT INTO keys VALUES('db/good', 1, 7, 1), ('', 1, 7, 2), ('db/type', 9, 7, 3), "
        "('db/int', 1, 4294967296, 4), ('db/bool', 3, 2, 5), ('db/nul', 2, CAST(x'610062' AS TEXT), 6), "
        "('db/last', 1, 7, 7);"
        "INSERT INTO keys VALUES(printf('%.256c', 'k'), 1, 7, 8), ('db/long', 2, printf('%.65537c', 'x'), "
        "9), "
        "('db/longest', 2, printf('%.65536c', 'x'), 10)");
    Service().Start();
    EXPECT_EQ(Get("db/good") + Get("db/last"), "int 7int 7");
    EXPECT_EQ(Get("db/longest").size(), 4U + 65536U);
    EXPECT_EQ(Log().Count("3 keys taken over, 7 left out"), 1);
}

TEST_F(OldStore, WithARowThatIsTooLargeCostsTheServiceNoMemory) {
    const auto peakKiBWith = [&](const std::string& more) {
        Make("INSERT INTO keys VALUES('db/a', 1, 7, 1)" + more);
        Service().Start();
        EXPECT_EQ(Get("db/a"), "int 7");
        const std::string status = ReadFile("/proc/" + std::to_string(Service().Pid()) + "/status");
        Service().Kill();
        fs::remove_all(DurableFolder());
        return std::stol(status.substr(status.find("VmHWM:") + 6));
    };
    const long usual = peakKiBWith("");
    EXPECT_LT(peakKiBWith(", ('db/huge', 2, CAST(zeroblob(60000000) AS TEXT), 2)"), usual + 30000);
    EXPECT_EQ(Log().Count("1 keys taken over, 0 left out, the rest cannot be read"), 1);
}

TEST_F(OldStore, IsLeftAloneUnlessItIsAPlainStoreOfKeys) {
    const std::string keys = "INSERT INTO keys VALUES('db/k', 1, 7, 1)";
    const std::string elsewhere = Root() + "/elsewhere.db";
    const std::vector<std::pair<std::string, std::function<void()>>> attacks = {
        {"a link",
         [&] {
             Make(keys);
             fs::rename(Path(), elsewhere);
             fs::create_symlink(elsewhere, Path());
         }},
        {"a second name",
         [&] {
             Make(keys);
             fs::create_hard_link(Path(), elsewhere + "2");
         }},
        {"a pipe", [&] { ASSERT_EQ(mkfifo(Path().c_str(), 0660), 0); }},
        {"a folder", [&] { fs::create_directory(Path()); }},
        {"rubbish", [&] { WriteFile(Path(), kRubbish); }},
        {"nothing", [&] { WriteFile(Path(), ""); }},
        {"an endless trigger", [&] { Make(keys + ";" + kEndlessTrigger); }},
        {"an endless view",
         [&] {
             Execute(Path(),
                     "CREATE VIEW keys AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i FROM n) "
                     "SELECT 'db/k' name, 1 type, i value, i change FROM n");
         }},
        {"too large a file",
         [&] {
             Make(keys);
             fs::resize_file(Path(), std::uintmax_t{65} * 1024 * 1024);
         }},
    };
    for (const auto& [what, plant] : attacks) {
        plant();
        ExpectLeftAlone(what);
    }
}

TEST_F(OldStore, CannotMakeTheServiceDeleteWhatItsJournalNames) {
    // A journal of a transaction over several databases names the one that decides about all of them; whoever
    // opens the database and finds it stale deletes that.
    const std::string victim = Root() + "/victim";
    WriteFile(victim, "not a journal");
    Execute(Path(), "PRAGMA journal_mode=DELETE; CREATE TABLE keys(name)");
    const std::string magic("\xd9\xd5\x05\xf9\x20\xa1\x63\xd7", 8);
    const auto number = [](std::uint32_t value) {
        std::string bytes;
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes += static_cast<char>((value >> static_cast<unsigned>(shift)) & 0xff);
        }
        return bytes;
    };
    std::uint32_t sum = 0;
    for (const char c : victim) {
        sum += static_cast<std::uint32_t>(static_cast<signed char>(c));
    }
    std::string journal = magic + number(0) + number(0) + number(2) + number(512) + number(4096);
    journal.resize(512, '\0');
    journal += number(0x40000000 / 4096 + 1) + victim + number(static_cast<std::uint32_t>(victim.size())) +
               number(sum) + magic;
    WriteFile(Path() + "-journal", journal);
    Service().Start();
    EXPECT_EQ(Get("db/k"), "none");
    EXPECT_TRUE(fs::exists(victim));
    EXPECT_TRUE(fs::exists(Path() + "-journal"));
    // The same files do it to whoever opens them as they are.
    const base::DatabasePtr opened = Execute(Path(), "SELECT * FROM sqlite_schema");
    EXPECT_FALSE(fs::exists(victim));
}

}  // namespace
