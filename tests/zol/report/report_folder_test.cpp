#include "ReportFolder.h"

#include <atomic>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "ZOLKpiManager.h"
#include "device_test.h"
#include "failing_new.h"

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

TEST_F(ReportFolderTest, ItsHeaderIsWholeOrNotThereWhereverMemoryRunsOut) {
    const ReportFolder folder("tg-1", "17");
    ASSERT_TRUE(folder.Make());
    const TCKpiManager identifiers;
    const std::string header = folder.Path() + "/header.json";
    const ReportFolder::HeaderErrors errors = folder.WriteHeader(identifiers);
    ASSERT_FALSE(errors.open || errors.write);
    const std::string whole = fakes::ReadDeviceFile(header);

    const auto isWritten = [&] {
        try {
            const ReportFolder::HeaderErrors found = folder.WriteHeader(identifiers);
            return !found.open && !found.write;
        } catch (const std::bad_alloc&) {
            return false;
        }
    };
    bool wasEnough = false;
    for (std::size_t next = 1; !wasEnough; ++next) {
        FailAllocation(next);
        const bool isDone = isWritten();
        wasEnough = FailAllocation(0) > 0;
        EXPECT_EQ(isDone, wasEnough) << "allocation " << next;
        ASSERT_EQ(fakes::ReadDeviceFile(header), whole) << "allocation " << next;
    }
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
