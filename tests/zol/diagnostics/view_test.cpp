#include "ZOLView.h"

#include <gmock/gmock.h>

#include "dlog.h"
#include "fake_diagnostics.h"
#include "fake_dlog.h"
#include "fakes.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class View : public testing::Test {
protected:
    View() { fakes::Reset(); }
};

TEST_F(View, ShowPostsTitleAndContent) {
    TCView view("Title", "Content");

    view.Show();

    EXPECT_THAT(fakes::notification::Posted(), ElementsAre("Title|Content"));
    EXPECT_THAT(fakes::notification::Settings(),
                ElementsAre("create 0", "text 0 TITLE -1", "text 1 CONTENT -1", "applist 17", "layout 1"));
    EXPECT_EQ(fakes::dlog::Find("[DEMO] TCView() START").priority, DLOG_PRIORITY_ERROR);
    EXPECT_EQ(fakes::dlog::Find("setting is done").priority, DLOG_PRIORITY_ERROR);
    EXPECT_EQ(fakes::dlog::Find("[DEMO] TCView() END").priority, DLOG_PRIORITY_ERROR);
}

TEST_F(View, AViewWhoseCreationFailedPostsNothing) {
    fakes::notification::Fail(fakes::notification::FAIL_CREATE);
    TCView view("Title", "Content");

    view.Show();

    EXPECT_THAT(fakes::notification::Posted(), IsEmpty());
    EXPECT_EQ(fakes::dlog::Find("m_Noti is NULL").priority, DLOG_PRIORITY_ERROR);
    EXPECT_FALSE(fakes::dlog::Has("setting is done"));
}

TEST_F(View, AViewWhoseLayoutCallFailedLogsBothAndPosts) {
    fakes::notification::Fail(fakes::notification::FAIL_LAYOUT);
    TCView view("Title", "Content");

    view.Show();

    EXPECT_THAT(fakes::notification::Posted(), ElementsAre("Title|Content"));
    EXPECT_EQ(fakes::dlog::Find("setting is fail").priority, DLOG_PRIORITY_ERROR);
    EXPECT_TRUE(fakes::dlog::Has("setting is done"));
}

TEST_F(View, ADefaultViewPostsNothing) {
    TCView view;

    view.Show();

    EXPECT_THAT(fakes::notification::Posted(), IsEmpty());
}

TEST_F(View, TheHandleIsReleasedWithTheView) {
    { const TCView view("Title", "Content"); }

    EXPECT_EQ(fakes::notification::Handles(), 0);
}

}  // namespace
