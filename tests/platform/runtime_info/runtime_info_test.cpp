#include "runtime_info.h"

#include <gtest/gtest.h>

#include "key_service.h"
#include "vconf.h"

namespace {

TEST(RuntimeInformation, IsTheIntegerInTheKeyOfItsNumber) {
    const KeyService keys;
    int value = -1;
    EXPECT_LT(runtime_info_get_value_int(RUNTIME_INFO_SHOP_MODE, &value), 0);
    EXPECT_EQ(value, -1);
    ASSERT_EQ(vconf_set_int("db/runtime_info/10010", 1), 0);
    EXPECT_EQ(runtime_info_get_value_int(RUNTIME_INFO_SHOP_MODE, &value), 0);
    EXPECT_EQ(value, 1);
    ASSERT_EQ(vconf_set_str("db/runtime_info/10010", "1"), 0);
    EXPECT_LT(runtime_info_get_value_int(RUNTIME_INFO_SHOP_MODE, &value), 0);
}

TEST(RuntimeInformation, NeedsAPlaceForItsValue) {
    EXPECT_LT(runtime_info_get_value_int(RUNTIME_INFO_SHOP_MODE, nullptr), 0);
}

}  // namespace
