#include "KeyWatch.h"

#include <utility>

#include "device_test.h"
#include "fake_vconf.h"

namespace {

using zol::KeyWatch;
using zol::WatchKey;

constexpr const char* kKey = "db/k";

class KeyWatchTest : public DeviceTest {
protected:
    KeyWatch Watch(const char* key = kKey) {
        return WatchKey(
            key, [](keynode_t*, void* calls) { ++*static_cast<int*>(calls); }, &m_calls);
    }
    /// Changes the key; how often the callback was called for it.
    int CallsForAChange() {
        const int before = m_calls;
        fakes::vconf::SetInt(kKey, 1);
        return m_calls - before;
    }

    int m_calls = 0;
};

TEST_F(KeyWatchTest, WatchesAsLongAsItLives) {
    {
        const KeyWatch watch = Watch();
        EXPECT_TRUE(watch);
        EXPECT_EQ(CallsForAChange(), 1);
    }
    EXPECT_EQ(CallsForAChange(), 0);
}

TEST_F(KeyWatchTest, MovesWithoutAnInterruption) {
    KeyWatch first = Watch();
    KeyWatch second(std::move(first));
    first = std::move(second);
    EXPECT_EQ(CallsForAChange(), 1);
    EXPECT_FALSE(second);
}

TEST_F(KeyWatchTest, TakingAnotherWatchWithdrawsItsOwn) {
    KeyWatch watch = Watch();
    watch = Watch("db/other");
    EXPECT_EQ(CallsForAChange(), 0);
    EXPECT_EQ(fakes::vconf::Registrations("db/other"), 1);
    watch.Reset();
    EXPECT_EQ(fakes::vconf::Registrations(), 0);
}

TEST_F(KeyWatchTest, TwoWatchesOfOneKeyGoOneByOne) {
    const KeyWatch first = Watch();
    Watch().Reset();
    EXPECT_EQ(CallsForAChange(), 1);
}

TEST_F(KeyWatchTest, ARefusedWatchIsFalseAndWithdrawsNothing) {
    const KeyWatch watch = Watch();
    fakes::vconf::Fail(kKey, fakes::vconf::FAIL_NOTIFY);
    EXPECT_FALSE(Watch());
    EXPECT_EQ(CallsForAChange(), 1);
}

}  // namespace
