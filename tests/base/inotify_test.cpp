#include "base/inotify.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "temporary_folder.h"

namespace {

class InotifyTest : public testing::Test {
protected:
    InotifyTest() { EXPECT_TRUE(m_inotify.Open()); }

    void Touch(const std::string& name) const { std::ofstream(m_folder.Path() + "/" + name) << "x"; }
    std::vector<std::string> ReadNames() {
        std::vector<std::string> names;
        m_inotify.Read([&](const base::InotifyEvent& event) { names.emplace_back(event.name); });
        return names;
    }

    TemporaryFolder m_folder;
    base::Inotify m_inotify;
};

TEST_F(InotifyTest, HandsOverEveryEventThatWaitsAndDoesNotBlock) {
    ASSERT_GE(m_inotify.Add(m_folder.Path(), IN_CREATE), 0);
    EXPECT_TRUE(ReadNames().empty());

    // More than one reading's worth.
    std::vector<std::string> expected;
    for (int number = 0; number < 300; ++number) {
        expected.push_back("a-name-that-takes-some-room-" + std::to_string(number));
        Touch(expected.back());
    }
    pollfd readable{m_inotify.Fd(), POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 0), 1);
    EXPECT_EQ(ReadNames(), expected);
    EXPECT_TRUE(ReadNames().empty());
}

TEST_F(InotifyTest, SaysWhichWatchAnEventBelongsTo) {
    std::filesystem::create_directory(m_folder.Path() + "/one");
    std::filesystem::create_directory(m_folder.Path() + "/two");
    const int one = m_inotify.Add(m_folder.Path() + "/one", IN_CREATE);
    const int two = m_inotify.Add(m_folder.Path() + "/two", IN_CREATE | IN_DELETE_SELF);
    Touch("two/file");
    std::vector<int> watches;
    const auto note = [&](const base::InotifyEvent& event) {
        if ((event.mask & IN_CREATE) != 0) {
            watches.push_back(event.watch);
        }
    };
    m_inotify.Read(note);
    EXPECT_EQ(watches, std::vector<int>{two});

    m_inotify.Remove(two);
    Touch("two/other");
    Touch("one/file");
    m_inotify.Read(note);
    EXPECT_EQ(watches, (std::vector<int>{two, one}));
}

TEST_F(InotifyTest, DoesNotWatchWhatIsNotThere) {
    EXPECT_EQ(m_inotify.Add(m_folder.Path() + "/missing", IN_CREATE), -1);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
