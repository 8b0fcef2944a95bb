#include "TCDirsManager.h"

#include <gtest/gtest.h>

#include <boost/thread/thread.hpp>

#include "TSFileSystem.h"
#include "device_paths.h"
#include "fake_dlog.h"
#include "fakes.h"
#include "waiting.h"

namespace {

class DirsManager : public testing::Test {
protected:
    DirsManager() { fakes::Reset(); }
};

TEST_F(DirsManager, InitializeMakesTheStateFolderAndMayBeRepeated) {
    TCDirsManager::Initialize();
    TCDirsManager::Initialize();

    EXPECT_TRUE(TSFileSystem::FolderExists(ZOL_PATH_STATE_DIR));
    EXPECT_TRUE(fakes::dlog::Lines().empty());
}

TEST_F(DirsManager, ThePolicyLiesInTheStateFolder) {
    EXPECT_EQ(TCDirsManager::GetPolicyXmlPath(), "/var/lib/zol/policy.xml");
}

TEST_F(DirsManager, AStateFolderThatCannotBeMadeIsLoggedAndNotThrown) {
    fakes::WriteDeviceFile(ZOL_PATH_STATE_DIR, "a file in its place");

    EXPECT_NO_THROW(TCDirsManager::Initialize());

    EXPECT_TRUE(fakes::dlog::Has("no folder for persistent state: " ZOL_PATH_STATE_DIR));
}

TEST_F(DirsManager, AnInterruptedThreadIsInterruptedInInitialize) {
    bool interrupted = false;
    boost::thread thread([&interrupted] {
        {
            const boost::this_thread::disable_interruption notYet;
            EXPECT_TRUE(Eventually([] { return boost::this_thread::interruption_requested(); }));
        }
        try {
            TCDirsManager::Initialize();
        } catch (const boost::thread_interrupted&) {
            interrupted = true;
        }
    });

    thread.interrupt();
    thread.join();

    EXPECT_TRUE(interrupted);
    EXPECT_FALSE(TSFileSystem::FolderExists(ZOL_PATH_STATE_DIR));
}

}  // namespace
