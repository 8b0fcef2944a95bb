#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "child_process.h"
#include "full_disk.h"
#include "key_store_fixture.h"

namespace fs = std::filesystem;

namespace {

using child::Process;

/// Holds a lock on a database until it is released. Arguments: database, statements.
int HoldLock(const child::Arguments& arguments) {
    sqlite3* connection = nullptr;
    if (sqlite3_open_v2(arguments[0].c_str(), &connection, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        return 1;
    }
    const int code = sqlite3_exec(connection, arguments[1].c_str(), nullptr, nullptr, nullptr);
    child::Tell(code == SQLITE_OK ? "held" : sqlite3_errmsg(connection));
    child::WaitForRelease();
    sqlite3_close(connection);
    return 0;
}
const child::Program kHoldLock("hold-lock", HoldLock);

/// Puts a database with a changed key in the place of the old one and goes on holding the lock for that
/// until it is released. Arguments: folder.
int StopWhileReplacing(const child::Arguments& arguments) {
    const fs::path folder = arguments[0];
    const base::UniqueFd lock(open((folder / "vconf.lock").c_str(), O_RDONLY | O_CLOEXEC));
    if (flock(lock.Get(), LOCK_EX) != 0) {
        return 1;
    }
    const fs::path replacement = folder.parent_path() / "replacement.db";
    fs::copy_file(folder / "vconf.db", replacement);
    sqlite3* connection = nullptr;
    if (sqlite3_open(replacement.c_str(), &connection) != SQLITE_OK ||
        sqlite3_exec(connection, "INSERT OR REPLACE INTO keys VALUES('db/k', 1, 9, 1)", nullptr, nullptr,
                     nullptr) != SQLITE_OK) {
        return 1;
    }
    sqlite3_close(connection);
    for (const char* end : {"-shm", "-wal", ""}) {
        fs::rename(folder / (std::string("vconf.db") + end),
                   folder.parent_path() / (std::string("old") + end));
    }
    fs::rename(replacement, folder / "vconf.db");
    child::Tell("stopped");
    child::WaitForRelease();
    return 0;
}
const child::Program kStopWhileReplacing("stop-while-replacing", StopWhileReplacing);

/// Sets and reads a key of a locked store twice, then once more when the lock is gone.
int UseLocked(const child::Arguments&) {
    for (int round = 0; round < 3; ++round) {
        int value = -1;
        const int set = vconf_set_int("db/k", 2);
        const int got = vconf_get_int("db/k", &value);
        child::Tell(std::to_string(set) + " " + std::to_string(got) + " " + std::to_string(value));
        if (round == 1) {
            child::WaitForRelease();
        }
    }
    return 0;
}
const child::Program kUseLocked("use-locked", UseLocked);

std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void Overwrite(const std::string& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

/// Writes rubbish over a file from an offset on, in place.
void Spoil(const std::string& path, std::size_t from) {
    const auto size = static_cast<std::size_t>(fs::file_size(path));
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(from));
    file << std::string(size - from, '\xa5');
}

const std::string kRubbish(5000, 'x');

class LockedStore : public KeyStoreTest {
protected:
    Process Hold(const std::string& statements) {
        Process holder("hold-lock", {Database(), statements});
        EXPECT_EQ(holder.ReadLine(), "held");
        return holder;
    }
};

TEST_F(LockedStore, CannotBeSetButReadAndLogsOnce) {
    ASSERT_TRUE(SetInt("db/k", 1));
    Process holder = Hold("BEGIN IMMEDIATE");
    Process user("use-locked", {}, Root());
    EXPECT_EQ(user.ReadLine(), "-1 0 1");
    EXPECT_EQ(user.ReadLine(), "-1 0 1");
    EXPECT_EQ(LogLines("cannot be written: database is locked"), 1);
    EXPECT_EQ(LogLines(""), 1);
    holder.Release();
    EXPECT_EQ(holder.Wait(), 0);
    user.Release();
    EXPECT_EQ(user.ReadLine(), "0 0 2");
    EXPECT_EQ(LogLines(""), 1);
}

TEST_F(LockedStore, ForReadersTooFailsBothWaysAndLogsEachOnce) {
    ASSERT_TRUE(SetInt("db/k", 1));
    Reopen();
    Process holder =
        Hold("PRAGMA locking_mode=EXCLUSIVE; BEGIN IMMEDIATE; UPDATE keys SET value = 3; COMMIT");
    Process user("use-locked", {}, Root());
    EXPECT_EQ(user.ReadLine(), "-1 -1 -1");
    EXPECT_EQ(user.ReadLine(), "-1 -1 -1");
    EXPECT_EQ(LogLines("cannot be written"), 1);
    EXPECT_EQ(LogLines("cannot be read"), 1);
    EXPECT_EQ(LogLines(""), 2);
    holder.Release();
    EXPECT_EQ(holder.Wait(), 0);
    user.Release();
    EXPECT_EQ(user.ReadLine(), "0 0 2");
}

TEST_F(LockedStore, TellsItsWatchersWhenItCanBeReadAgain) {
    Heard heard;
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_TRUE(Store().Watch("db/k", &Heard::Callback, &heard));
    // Another process stops in the middle of replacing the database.
    Process replacer("stop-while-replacing", {DurableFolder()});
    ASSERT_EQ(replacer.ReadLine(), "stopped");
    const PlatformLog log;
    ASSERT_TRUE(ServeUntil([&] { return log.Count(Database() + " cannot be read") == 1; }));
    replacer.Release();
    EXPECT_EQ(replacer.Wait(), 0);
    EXPECT_TRUE(ServeUntil([&] { return heard.number == 9; }));
    EXPECT_EQ(log.Count(Database()), 1);
}

class DamagedStore : public KeyStoreTest {
protected:
    std::string OnlyDamagedFile() {
        const std::vector<std::string> names = DamagedDatabases();
        EXPECT_EQ(names.size(), 1U);
        return names.empty() ? "" : names[0];
    }
    /// Without their logs.
    std::vector<std::string> DamagedDatabases() {
        std::vector<std::string> paths;
        for (const std::string& name : FilesNamed(".damaged")) {
            if (name.find("-wal") == std::string::npos && name.find("-shm") == std::string::npos) {
                paths.push_back(DurableFolder() + "/" + name);
            }
        }
        return paths;
    }
};

TEST_F(DamagedStore, IsSetAsideWholeAndANewOneIsBegun) {
    fs::create_directories(DurableFolder());
    Overwrite(Database(), kRubbish);
    EXPECT_EQ(InAnotherProcess({"get", "db/k", "int", "db/k", "4", "get", "db/k"}), "none\n0\nint 4\n");
    EXPECT_EQ(Contents(OnlyDamagedFile()), kRubbish);
    EXPECT_EQ(LogLines("is damaged (file is not a database): set aside as"), 1);
    EXPECT_EQ(LogLines(""), 1);
    EXPECT_EQ(GetInt("db/k"), 4);
}

TEST_F(DamagedStore, KeepsTheNewestDamagedFileOnly) {
    fs::create_directories(DurableFolder());
    for (int round = 1; round <= 3; ++round) {
        Overwrite(Database(), kRubbish + std::to_string(round));
        EXPECT_EQ(InAnotherProcess({"int", "db/k", "4"}), "0\n");
    }
    EXPECT_EQ(Contents(OnlyDamagedFile()), kRubbish + "3");
    EXPECT_EQ(LogLines("is damaged"), 3);
}

TEST_F(DamagedStore, TakesItsLogAside) {
    ASSERT_TRUE(SetInt("db/k", 1));
    const std::string log = Contents(Database() + "-wal");
    ASSERT_FALSE(log.empty());
    Overwrite(Database(), kRubbish);
    EXPECT_EQ(InAnotherProcess({"get", "db/k"}), "none\n");
    EXPECT_EQ(Contents(Database() + ".damaged-wal"), log);
}

TEST_F(DamagedStore, MayBeAnEmptyFileOrAForeignDatabase) {
    fs::create_directories(DurableFolder());
    Overwrite(Database(), "");
    EXPECT_EQ(InAnotherProcess({"int", "db/k", "4"}), "0\n");
    EXPECT_EQ(LogLines("is damaged (file is empty)"), 1);
    fs::remove_all(DurableFolder());
    fs::create_directories(DurableFolder());
    sqlite3* connection = nullptr;
    ASSERT_EQ(sqlite3_open(Database().c_str(), &connection), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(connection, "CREATE TABLE other(x)", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(connection);
    EXPECT_EQ(InAnotherProcess({"int", "db/k", "4", "get", "db/k"}), "0\nint 4\n");
    EXPECT_EQ(LogLines("is damaged (no such table: keys)"), 1);
}

TEST_F(DamagedStore, CutAtAnyPageIsReadOrSetAside) {
    for (int index = 0; index < 300; ++index) {
        ASSERT_TRUE(Store().Set(("memory/k" + std::to_string(index)).c_str(), {VCONF_TYPE_INT, index, {}}));
    }
    sqlite3* connection = nullptr;
    const std::string memory = MemoryFolder() + "/vconf.db";
    ASSERT_EQ(sqlite3_open(memory.c_str(), &connection), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(connection, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(connection);
    const std::string whole = Contents(memory);
    fs::create_directories(DurableFolder());
    for (std::size_t length = 0; length < whole.size(); length += 1024) {
        Reopen();
        for (const char* end : {"", "-wal", "-shm"}) {
            fs::remove(Database() + end);
        }
        Overwrite(Database(), whole.substr(0, length));
        EXPECT_TRUE(SetInt("db/k", 4)) << length;
        EXPECT_EQ(GetInt("db/k"), 4) << length;
        EXPECT_FALSE(FilesNamed(".damaged").empty()) << length;
    }
}

TEST_F(DamagedStore, IsReplacedByOneOfManyProcesses) {
    fs::create_directories(DurableFolder());
    Overwrite(Database(), kRubbish);
    constexpr int kProcesses = 6;
    std::vector<Process> processes;
    for (int index = 0; index < kProcesses; ++index) {
        processes.emplace_back("vconf", child::Arguments{"int", "db/k" + std::to_string(index), "1"}, Root());
    }
    for (Process& process : processes) {
        EXPECT_EQ(process.ReadAll(), "0\n");
        EXPECT_EQ(process.Wait(), 0);
    }
    OnlyDamagedFile();
    EXPECT_EQ(LogLines("is damaged"), 1);
    for (int index = 0; index < kProcesses; ++index) {
        EXPECT_EQ(GetInt("db/k" + std::to_string(index)), 1) << index;
    }
}

TEST_F(DamagedStore, ReplacedByAnotherProcessIsNoticedByThoseWhoHaveItOpen) {
    Heard first;
    Heard second;
    for (int value = 0; value < 20; ++value) {
        ASSERT_TRUE(SetInt("db/k", value));
    }
    ASSERT_TRUE(Store().Watch("db/k", &Heard::Callback, &first));
    ASSERT_TRUE(Store().Watch("db/other", &Heard::Callback, &second));
    Spoil(Database(), 0);
    // The numbers of the new store's changes are below those of the old one.
    EXPECT_EQ(InAnotherProcess({"int", "db/k", "77", "int", "db/other", "78"}), "0\n0\n");
    EXPECT_TRUE(ServeUntil([&] { return first.number == 77 && second.number == 78; }));
    EXPECT_EQ(GetInt("db/k"), 77);
    ASSERT_TRUE(SetInt("db/k", 79));
    EXPECT_TRUE(ServeUntil([&] { return first.number == 79; }));
}

using ForeignEntry = KeyStoreTest;

TEST_F(ForeignEntry, InTheDoorbellsPlaceGivesWayAndNobodyWaitsForIt) {
    Heard heard;
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_TRUE(Store().Watch("db/k", &Heard::Callback, &heard));
    const std::string doorbell = DurableFolder() + "/vconf.doorbell";
    const std::string elsewhere = Root() + "/elsewhere";
    Overwrite(elsewhere, "kept");
    const auto pipe = [&] { ASSERT_EQ(mkfifo(doorbell.c_str(), 0600), 0); };
    const auto link = [&] { fs::create_symlink(elsewhere, doorbell); };
    int value = 1;
    for (const std::function<void()>& put : {std::function<void()>(pipe), std::function<void()>(link)}) {
        fs::remove(doorbell);
        put();
        ++value;
        EXPECT_EQ(InAnotherProcess({"int", "db/k", std::to_string(value)}), "0\n");
        EXPECT_TRUE(ServeUntil([&] { return heard.number == value; }));
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(doorbell)));
    }
    EXPECT_EQ(Contents(elsewhere), "kept");
}

TEST_F(ForeignEntry, InTheLocksPlaceIsNoLockAndGivesWayToOne) {
    ASSERT_TRUE(SetInt("db/k", 1));
    const std::string lock = DurableFolder() + "/vconf.lock";
    fs::remove(lock);
    ASSERT_EQ(mkfifo(lock.c_str(), 0600), 0);
    EXPECT_EQ(InAnotherProcess({"get", "db/k", "int", "db/k", "2"}), "int 1\n0\n");
    Reopen();
    fs::remove(Database());
    EXPECT_TRUE(SetInt("db/k", 3));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(lock)));
}

TEST_F(DamagedStore, IsNoticedWhileItIsInUse) {
    constexpr int kKeys = 10000;
    sqlite3* connection = nullptr;
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_EQ(sqlite3_open(Database().c_str(), &connection), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(connection,
                           "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 10000)"
                           "INSERT INTO keys SELECT 'db/key' || i, 1, i, i + 1 FROM n;"
                           "PRAGMA wal_checkpoint(TRUNCATE)",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(connection);
    Heard heard;
    ASSERT_TRUE(Store().Watch("db/k", &Heard::Callback, &heard));
    Spoil(Database(), 4096);
    for (int index = 1; index <= kKeys && FilesNamed(".damaged").empty(); ++index) {
        GetInt("db/key" + std::to_string(index));
    }
    OnlyDamagedFile();
    ASSERT_TRUE(SetInt("db/k", 5));
    EXPECT_EQ(GetInt("db/k"), 5);
    EXPECT_TRUE(ServeUntil([&] { return heard.number == 5; }));
}

class MissingStore : public KeyStoreTest {};

TEST_F(MissingStore, IsMadeAnewWhenItsFileIsDeletedWhileOpen) {
    Heard heard;
    ASSERT_TRUE(SetInt("db/k", 1));
    ASSERT_TRUE(Store().Watch("db/k", &Heard::Callback, &heard));
    fs::remove(Database());
    fs::remove(Database() + "-wal");
    EXPECT_EQ(GetInt("db/k"), -1);
    ASSERT_TRUE(SetInt("db/k", 2));
    EXPECT_EQ(GetInt("db/k"), 2);
    EXPECT_TRUE(ServeUntil([&] { return heard.number == 2; }));
}

TEST_F(MissingStore, LeavesItsLogToBeSetAside) {
    ASSERT_TRUE(SetInt("db/k", 1));
    const std::string log = Contents(Database() + "-wal");
    fs::remove(Database());
    EXPECT_EQ(InAnotherProcess({"int", "db/k", "2", "get", "db/k"}), "0\nint 2\n");
    EXPECT_EQ(Contents(Database() + ".damaged-wal"), log);
}

TEST_F(MissingStore, FailsAndLogsOnceWhenItsFolderCannotBeMade) {
    Overwrite(Root() + "/var", "a file where a folder should be");
    Overwrite(Root() + "/run", "another one");
    Heard heard;
    EXPECT_FALSE(SetInt("db/k", 1));
    EXPECT_FALSE(Store().Watch("db/k", &Heard::Callback, &heard));
    EXPECT_EQ(GetInt("db/k"), -1);
    fs::remove(Root() + "/var");
    EXPECT_EQ(InAnotherProcess({"int", "memory/k", "1", "int", "memory/k", "1"}), "-1\n-1\n");
    EXPECT_EQ(LogLines("its folder cannot be made: Not a directory"), 1);
    EXPECT_EQ(LogLines(""), 1);
    EXPECT_TRUE(SetInt("db/k", 1));
    EXPECT_TRUE(Store().Watch("db/k", &Heard::Callback, &heard));
}

TEST_F(MissingStore, IsMadeBehindALinkOfTheImage) {
    chmod(Root().c_str(), 0755);
    fs::create_directory_symlink("opt/var", Root() + "/var");
    EXPECT_EQ(InAnotherProcess({"int", "db/k", "2", "get", "db/k"}), "0\nint 2\n");
    EXPECT_TRUE(fs::exists(Root() + "/opt/var/lib/zol/vconf/vconf.db"));
}

TEST_F(MissingStore, IsNotMadeBehindALinkThatAnybodyCanHavePlanted) {
    chmod(Root().c_str(), 01777);
    fs::create_directory(Root() + "/elsewhere");
    fs::create_directory_symlink("elsewhere", Root() + "/var");
    EXPECT_FALSE(SetInt("db/k", 2));
    EXPECT_TRUE(fs::is_empty(Root() + "/elsewhere"));
}

class StoreOnAFullDisk : public KeyStoreTest {};

TEST_F(StoreOnAFullDisk, KeepsTheOldValueAndWorksAgainLater) {
    ASSERT_TRUE(SetInt("db/k", 1));
    {
        const FullDisk full(static_cast<rlim_t>(fs::file_size(Database() + "-wal")));
        EXPECT_FALSE(SetInt("db/k", 2));
        EXPECT_FALSE(SetInt("db/k", 3));
        EXPECT_EQ(GetInt("db/k"), 1);
    }
    EXPECT_TRUE(FilesNamed(".damaged").empty());
    EXPECT_TRUE(SetInt("db/k", 4));
    EXPECT_EQ(GetInt("db/k"), 4);
}

TEST_F(StoreOnAFullDisk, IsNotHalfMade) {
    {
        const FullDisk full(4096);
        EXPECT_FALSE(SetInt("db/k", 2));
        EXPECT_EQ(GetInt("db/k"), -1);
    }
    EXPECT_FALSE(fs::exists(Database()));
    EXPECT_TRUE(SetInt("db/k", 4));
    EXPECT_EQ(GetInt("db/k"), 4);
    EXPECT_TRUE(FilesNamed(".damaged").empty());
}

}  // namespace
