#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "key_store_fixture.h"

namespace fs = std::filesystem;

namespace {

using keystore::Value;

class StoredValue : public KeyStoreTest {};

TEST_F(StoredValue, HasTheTypeThatItWasSetWith) {
    EXPECT_EQ(InAnotherProcess(
                  {"int", "db/i", "-2147483648", "bool", "db/b", "7", "str", "db/s", "a'\"\n\xc3\xa4"}),
              "0\n0\n0\n");
    Value value;
    ASSERT_TRUE(Store().Get("db/i", &value));
    EXPECT_EQ(value.type, VCONF_TYPE_INT);
    EXPECT_EQ(value.number, -2147483647 - 1);
    ASSERT_TRUE(Store().Get("db/b", &value));
    EXPECT_EQ(value.type, VCONF_TYPE_BOOL);
    EXPECT_EQ(value.number, 1);
    ASSERT_TRUE(Store().Get("db/s", &value));
    EXPECT_EQ(value.type, VCONF_TYPE_STRING);
    EXPECT_EQ(value.text, "a'\"\n\xc3\xa4");
}

TEST_F(StoredValue, TakesTheTypeOfTheLastSet) {
    EXPECT_EQ(InAnotherProcess({"int", "db/k", "3", "get", "db/k", "str", "db/k", "", "get", "db/k", "bool",
                                "db/k", "0", "get", "db/k"}),
              "0\nint 3\n0\nstr \n0\nbool 0\n");
}

TEST_F(StoredValue, IsMissingBeforeTheFirstSetAndAfterRemoval) {
    EXPECT_EQ(InAnotherProcess({"get", "db/k", "unset", "db/k", "int", "db/k", "1", "unset", "db/k", "get",
                                "db/k", "int", "db/k", "2", "get", "db/k"}),
              "none\n0\n0\n0\nnone\n0\nint 2\n");
}

TEST_F(StoredValue, SurvivesARestart) {
    ASSERT_TRUE(SetInt("db/k", 42));
    ASSERT_TRUE(SetInt("memory/k", 43));
    Reopen();
    EXPECT_EQ(GetInt("db/k"), 42);
    EXPECT_EQ(GetInt("memory/k"), 43);
}

TEST_F(StoredValue, OfAMemoryKeyStaysOutOfTheDurableFolder) {
    ASSERT_TRUE(SetInt("memory/k", 1));
    EXPECT_TRUE(fs::exists(MemoryFolder() + "/vconf.db"));
    EXPECT_FALSE(fs::exists(DurableFolder()));
}

TEST_F(StoredValue, OfAnUnknownPrefixIsDurable) {
    ASSERT_TRUE(SetInt("unknown", 1));
    ASSERT_TRUE(SetInt("memory", 2));
    EXPECT_TRUE(fs::exists(Database()));
    EXPECT_FALSE(fs::exists(MemoryFolder()));
    EXPECT_EQ(GetInt("memory"), 2);
}

TEST_F(StoredValue, NeedsAKeyThatIsNeitherEmptyNorTooLong) {
    const std::string longest(keystore::kMaxKeyBytes, 'k');
    EXPECT_TRUE(SetInt(longest, 1));
    EXPECT_EQ(GetInt(longest), 1);
    Heard heard;
    const std::string tooLong = longest + "k";
    for (const char* key : {static_cast<const char*>(nullptr), "", tooLong.c_str()}) {
        Value value;
        EXPECT_FALSE(Store().Set(key, {VCONF_TYPE_INT, 1, {}}));
        EXPECT_FALSE(Store().Get(key, &value));
        EXPECT_FALSE(Store().Remove(key));
        EXPECT_FALSE(Store().Watch(key, &Heard::Callback, &heard));
        EXPECT_FALSE(Store().Withdraw(key, &Heard::Callback, &heard));
    }
}

TEST_F(StoredValue, MayBeALongStringButNotATooLongOne) {
    const std::string longest(keystore::kMaxTextBytes, 'x');
    EXPECT_TRUE(Store().Set("db/k", {VCONF_TYPE_STRING, 0, longest}));
    EXPECT_FALSE(Store().Set("db/k", {VCONF_TYPE_STRING, 0, longest + "x"}));
    Value value;
    ASSERT_TRUE(Store().Get("db/k", &value));
    EXPECT_EQ(value.text, longest);
}

TEST(VconfCall, RefusesNullArguments) {
    EXPECT_EQ(vconf_get_int("db/k", nullptr), -1);
    EXPECT_EQ(vconf_set_str("db/k", nullptr), -1);
    EXPECT_EQ(vconf_notify_key_changed("db/k", nullptr, nullptr), -1);
    EXPECT_EQ(vconf_keynode_get_type(nullptr), VCONF_TYPE_NONE);
}

class StoreFolder : public KeyStoreTest {};

TEST_F(StoreFolder, IsNotMadeByReading) {
    EXPECT_EQ(GetInt("db/k"), -1);
    EXPECT_EQ(GetInt("memory/k"), -1);
    EXPECT_TRUE(fs::is_empty(Root()));
}

TEST_F(StoreFolder, IsForTheOwnerAndTheGroup) {
    ASSERT_TRUE(SetInt("db/k", 1));
    struct stat status {};
    ASSERT_EQ(stat(DurableFolder().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 02770U);
    for (const char* name : {"vconf.db", "vconf.db-wal", "vconf.db-shm", "vconf.lock", "vconf.doorbell"}) {
        ASSERT_EQ(stat((DurableFolder() + "/" + name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode & 07777U, 0660U) << name;
    }
}

TEST_F(StoreFolder, IsNotWrittenByAProcessThatReads) {
    ASSERT_TRUE(SetInt("db/k", 1));
    Reopen();
    const fs::path log = Database() + "-wal";
    const auto database = fs::last_write_time(Database());
    const auto size = fs::file_size(log);
    const auto written = fs::last_write_time(log);
    EXPECT_EQ(InAnotherProcess({"get", "db/k", "get", "db/none"}), "int 1\nnone\n");
    EXPECT_EQ(GetInt("db/k"), 1);
    Reopen();
    EXPECT_EQ(fs::last_write_time(Database()), database);
    EXPECT_EQ(fs::file_size(log), size);
    EXPECT_EQ(fs::last_write_time(log), written);
}

}  // namespace
