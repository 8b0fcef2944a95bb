#include "platform_services.h"

#include <gmock/gmock.h>

#include <memory>

#include "missing_services.h"
#include "platform_services/service_mark.h"

namespace {

using platform::ServiceMark;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(PlatformServices, AServiceIsNamedWhileItIsMissingAndUsed) {
    auto lamp = std::make_unique<ServiceMark>("lamp");
    ServiceMark bell("bell");
    EXPECT_THAT(Missing(), IsEmpty());

    lamp->Set(true);
    bell.Set(true);
    EXPECT_THAT(Missing(), ElementsAre("bell", "lamp"));
    bell.Set(false);
    EXPECT_THAT(Missing(), ElementsAre("lamp"));
    lamp.reset();
    EXPECT_THAT(Missing(), IsEmpty());
}

TEST(PlatformServices, AServiceThatIsMissedInTwoPlacesIsNamedOnce) {
    ServiceMark one("lamp");
    ServiceMark other("lamp");
    one.Set(true);
    other.Set(true);

    EXPECT_THAT(Missing(), ElementsAre("lamp"));
}

}  // namespace
