#pragma once
/// A machine whose failed assertions report and return.
#include "device_test.h"

class ContainerFixture : public DeviceTest {
protected:
    ContainerFixture() { SurviveAssertions(); }
};
