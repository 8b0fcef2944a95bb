#include "StoredNumber.h"

#include <cstdint>
#include <string>

#include "device_test.h"
#include "failing_new.h"
#include "fake_vconf.h"

namespace {

using zol::EStoredNumber;

constexpr const char* kStored = "db/n";

using StoredNumber = DeviceTest;

TEST_F(StoredNumber, ATextForWhichThereIsNoMemoryIsToldApartAndChangesNothing) {
    // Too long for what a stream has room for in itself.
    fakes::vconf::SetString(kStored, "42" + std::string(1000, ' '));
    std::int64_t number = 7;

    FailAllocation(1);
    const EStoredNumber result = zol::ReadStoredNumber(kStored, number);
    EXPECT_EQ(FailAllocation(0), 0U) << "nothing was allocated";

    EXPECT_EQ(result, EStoredNumber::STREAM_FAILED);
    EXPECT_EQ(number, 7);
    EXPECT_EQ(zol::ReadStoredNumber(kStored, number), EStoredNumber::LOADED);
    EXPECT_EQ(number, 42);
}

}  // namespace
