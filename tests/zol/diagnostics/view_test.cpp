#include "ZOLView.h"

#include <gmock/gmock.h>

#include "device_test.h"
#include "fake_diagnostics.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using View = DeviceTest;

TEST_F(View, ShowPostsTitleAndContentAndTheHandleGoesWithTheView) {
    {
        TCView view("Title", "Content");
        view.Show();
    }

    EXPECT_THAT(fakes::notification::Posted(), ElementsAre("Title|Content"));
    EXPECT_THAT(fakes::notification::Settings(),
                ElementsAre("create 0", "text 0 TITLE -1", "text 1 CONTENT -1", "applist 17", "layout 1"));
    EXPECT_EQ(fakes::notification::Handles(), 0);
    ExpectErrors({"[DEMO] TCView() START", "setting is done", "[DEMO] TCView() END"});
}

TEST_F(View, AViewWhoseLayoutCallFailedLogsBothAndPosts) {
    fakes::notification::Fail(fakes::notification::FAIL_LAYOUT);

    TCView("Title", "Content").Show();

    EXPECT_THAT(fakes::notification::Posted(), ElementsAre("Title|Content"));
    ExpectErrors({"setting is fail", "setting is done"});
}

TEST_F(View, AViewWhoseCreationFailedAndADefaultOnePostNothing) {
    fakes::notification::Fail(fakes::notification::FAIL_CREATE);

    TCView("Title", "Content").Show();
    TCView().Show();

    EXPECT_THAT(fakes::notification::Posted(), IsEmpty());
    ExpectErrors({"m_Noti is NULL"});
    EXPECT_EQ(Logged("setting is done"), 0);
}

}  // namespace
