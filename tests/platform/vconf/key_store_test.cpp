#include <cerrno>
#include <climits>
#include <filesystem>
#include <string>

#include "base/handles.h"
#include "full_disk.h"
#include "key_store_fixture.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kLongestKey = 255;
constexpr std::size_t kLongestText = 65536;

class StoredValue : public KeyStoreTest {};

TEST_F(StoredValue, HasTheTypeThatItWasSetWith) {
    EXPECT_EQ(InAnotherProcess(
                  {"int", "db/i", "-2147483648", "bool", "db/b", "7", "str", "db/s", "a'\"\n\xc3\xa4"}),
              "0\n0\n0\n");
    EXPECT_EQ(Get("db/i"), "int " + std::to_string(INT_MIN));
    EXPECT_EQ(Get("db/b"), "bool 1");
    EXPECT_EQ(Get("db/s"), "str a'\"\n\xc3\xa4");
    int value = 5;
    EXPECT_EQ(vconf_get_bool("db/i", &value), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(vconf_get_int("db/none", &value), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(value, 5);
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

TEST_F(StoredValue, SurvivesTheServiceThatIsKilledOnceItIsSet) {
    for (int round = 1; round <= 20; ++round) {
        ASSERT_TRUE(SetInt("db/k", round));
        ASSERT_TRUE(SetInt("memory/k", -round));
        Service().Kill();
        Service().Start();
        EXPECT_EQ(Get("db/k"), "int " + std::to_string(round));
        EXPECT_EQ(Get("memory/k"), "int " + std::to_string(-round));
    }
}

TEST_F(StoredValue, OfAMemoryKeyStaysOutOfTheDurableFolder) {
    ASSERT_TRUE(SetInt("memory/k", 1));
    EXPECT_TRUE(fs::exists(MemoryFolder() + "/vconf.db"));
    EXPECT_FALSE(fs::exists(Database()));
}

TEST_F(StoredValue, OfAnUnknownPrefixIsDurable) {
    ASSERT_TRUE(SetInt("unknown", 1));
    ASSERT_TRUE(SetInt("memory", 2));
    EXPECT_TRUE(fs::exists(Database()));
    EXPECT_FALSE(fs::exists(MemoryFolder() + "/vconf.db"));
    EXPECT_EQ(GetInt("memory"), 2);
}

TEST_F(StoredValue, NeedsAKeyThatIsNeitherEmptyNorTooLong) {
    const std::string longest(kLongestKey, 'k');
    EXPECT_TRUE(SetInt(longest, 1));
    EXPECT_EQ(GetInt(longest), 1);
    Heard heard;
    const std::string tooLong = longest + "k";
    for (const char* key : {static_cast<const char*>(nullptr), "", tooLong.c_str()}) {
        int value = 0;
        errno = 0;
        EXPECT_EQ(vconf_set_int(key, 1), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(vconf_get_int(key, &value), -1);
        EXPECT_EQ(vconf_unset(key), -1);
        EXPECT_LT(vconf_notify_key_changed(key, &Heard::Callback, &heard), 0);
        EXPECT_EQ(vconf_withdraw_key_changed(key, &Heard::Callback, &heard), -1);
    }
}

/// All keys, in the order in which the store lists them.
std::vector<std::string> ListedKeys() {
    std::vector<std::string> keys;
    char key[kLongestKey + 1] = "";
    while (vconf_next_key(key, key, sizeof(key)) == 0) {
        keys.emplace_back(key);
    }
    EXPECT_EQ(errno, ENOENT);
    return keys;
}

TEST_F(StoredValue, IsListedInTheOrderOfTheKeysWhereverItIsStored) {
    const std::string longest(kLongestKey, 'z');
    EXPECT_TRUE(ListedKeys().empty());
    for (const char* key :
         {"memory/b", "other", "db/b", "memory/a", longest.c_str(), "db/a", "db/a/b", "db/gone"}) {
        ASSERT_TRUE(SetInt(key, 1));
    }
    ASSERT_EQ(vconf_unset("db/gone"), 0);

    EXPECT_EQ(ListedKeys(),
              std::vector<std::string>({"db/a", "db/a/b", "db/b", "memory/a", "memory/b", "other", longest}));
    char next[4];
    EXPECT_EQ(vconf_next_key("db/b", next, sizeof(next)), 0);
    EXPECT_STREQ(next, "mem") << "cut to fit";
    EXPECT_EQ(vconf_next_key((longest + "z").c_str(), next, sizeof(next)), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(StoredValue, MayBeALongStringButNotATooLongOne) {
    const std::string longest(kLongestText, 'x');
    EXPECT_EQ(vconf_set_str("db/k", longest.c_str()), 0);
    EXPECT_EQ(vconf_set_str("db/k", (longest + "x").c_str()), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Get("db/k"), "str " + longest);
}

TEST(VconfCall, RefusesNullArguments) {
    EXPECT_EQ(vconf_get_int("db/k", nullptr), -1);
    EXPECT_EQ(vconf_set_str("db/k", nullptr), -1);
    EXPECT_EQ(vconf_notify_key_changed("db/k", nullptr, nullptr), -1);
    EXPECT_EQ(vconf_keynode_get_type(nullptr), VCONF_TYPE_NONE);
}

}  // namespace
