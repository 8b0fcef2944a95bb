#pragma once
/// A device with reports on it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "device_path.h"
#include "device_test.h"
#include "fake_clock.h"
#include "fakes.h"
#include "files.h"
#include "report.h"
#include "report_root.h"
#include "spool.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;

class ReportTest : public DeviceTest {
protected:
    static constexpr const char* kName = "11111111-2222_1700000000";
    static constexpr uid_t kStranger = 65534;

    ReportTest() {
        fakes::MakeDeviceFolder("/tmp/zol");
        // The world can write to it, as it can on a device.
        chmod(Host("/tmp").c_str(), 01777);
    }

    static std::string Host(const std::string& devicePath) { return DevicePath(devicePath); }
    static std::string HostOf(const std::string& name) { return Host(reports::PathOf(name)); }
    static bool IsRoot() { return geteuid() == 0; }

    static std::string HeaderText(const std::string& evid) {
        return R"({"category" : "ZOL", "evid" : ")" + evid + R"(", "id" : "HW-1", "lcid" : "42"})";
    }
    /// Of an age that nothing more comes into it.
    static void MakeReport(const std::string& name = kName, const std::string& evid = "1700000000") {
        WriteFile(HostOf(name) + "/header.json", HeaderText(evid));
        chmod(HostOf(name).c_str(), 0755);
        SetAge(name, 60);
    }
    /// By the fake wall clock.
    static void SetAge(const std::string& name, std::int64_t seconds) {
        const timespec moment{static_cast<time_t>(fakes::clock::WallSeconds() - seconds), 0};
        const timespec both[] = {moment, moment};
        ASSERT_EQ(utimensat(AT_FDCWD, HostOf(name).c_str(), both, 0), 0);
    }
    static bool WasTaken(const collector::Spool& spool, const std::string& name) {
        reports::ReportRoot root;
        return !root.Open() && spool.WasTaken(root, name);
    }
    static reports::Outcome Open(const std::string& name, reports::Report* report = nullptr) {
        reports::ReportRoot root;
        base::UniqueFd folder;
        reports::Report ignored;
        reports::Outcome outcome = root.Open();
        if (!outcome) {
            outcome = root.OpenReport(name, folder);
        }
        return outcome ? outcome : Describe(folder.Get(), name, report != nullptr ? *report : ignored);
    }
};
