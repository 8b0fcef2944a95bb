#include "ReportFolder.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ZOLKpiManager.h"
#include "device_test.h"

namespace {

using zol::ReportFolder;

using ReportFolderTest = DeviceTest;

TEST_F(ReportFolderTest, ThePathIsMadeOfTgidAndEvidAndCutAt127Bytes) {
    EXPECT_EQ(ReportFolder("tg-1\n", "17").Path(), "/tmp/zol/tg-1\n_17");
    EXPECT_EQ(ReportFolder(std::string(116, 't'), "1").Path(), "/tmp/zol/" + std::string(116, 't') + "_1");
    EXPECT_EQ(ReportFolder(std::string(117, 't'), "12").Path(), "/tmp/zol/" + std::string(117, 't') + "_");
}

TEST_F(ReportFolderTest, TheHeadersPathIsCutAt127BytesToo) {
    const ReportFolder folder("/tmp/" + std::string(117, 'f'));
    ASSERT_TRUE(folder.Make());

    EXPECT_FALSE(folder.WriteHeader(TCKpiManager()).open);

    EXPECT_TRUE(fakes::DeviceFileExists(folder.Path() + "/head"));
    EXPECT_FALSE(fakes::DeviceFileExists(folder.Path() + "/header.json"));
}

TEST_F(ReportFolderTest, IsWrittenBySeveralThreadsAtATimeWithoutAnErrorOfAny) {
    const ReportFolder folder("tg-1", "17");
    ASSERT_TRUE(folder.Make());
    std::atomic<int> errors{0};
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 4; ++writer) {
        writers.emplace_back([&] {
            for (int turn = 0; turn < 200; ++turn) {
                const ReportFolder::HeaderErrors found = folder.WriteHeader(TCKpiManager());
                errors += found.open || found.write ? 1 : 0;
            }
        });
    }

    for (std::thread& writer : writers) {
        writer.join();
    }

    EXPECT_EQ(errors, 0);
}

}  // namespace
