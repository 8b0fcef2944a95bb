/// The stored policy under bad conditions: disks that are full, paths that are no files, content that is
/// none.
#include <dlfcn.h>
#include <glib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "ZOLPolicy.h"
#include "device_path.h"
#include "dlog.h"
#include "failing_new.h"
#include "fake_dlog.h"
#include "full_disk.h"
#include "policy_manager_fixture.h"
#include "unprivileged.h"

namespace {

/// What this thread makes last, while it is set.
thread_local std::vector<std::string>* t_durableSteps = nullptr;
/// The next sync of this thread fails: a disk that is going.
thread_local bool t_failNextSync = false;
/// The next file that this thread closes loses what it held: a disk that fails late.
thread_local bool t_failNextClose = false;

std::string SyncStep(int descriptor) {
    struct stat status = {};
    if (fstat(descriptor, &status) != 0) {
        return "sync of nothing";
    }
    return S_ISDIR(status.st_mode) ? "sync folder" : "sync " + std::to_string(status.st_size) + " bytes";
}

std::string NameOf(const std::string& path) {
    return path.substr(path.find_last_of('/') + 1);
}

/// Notes what `step` returns; nobody else's call asks for memory.
template <class Step>
void Record(Step step) {
    if (t_durableSteps != nullptr) {
        t_durableSteps->push_back(step());
    }
}

}  // namespace

// These stand before the C library's, for the whole test program.

extern "C" int fsync(int descriptor) {
    static const auto next = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
    Record([=] { return SyncStep(descriptor); });
    if (std::exchange(t_failNextSync, false)) {
        errno = EIO;
        return -1;
    }
    return next(descriptor);
}

extern "C" int rename(const char* from, const char* to) noexcept {
    static const auto next = reinterpret_cast<int (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "rename"));
    Record([=] { return "rename " + NameOf(from) + " to " + NameOf(to); });
    return next(from, to);
}

extern "C" int fclose(std::FILE* file) {
    static const auto next = reinterpret_cast<int (*)(std::FILE*)>(dlsym(RTLD_NEXT, "fclose"));
    const int result = next(file);
    if (std::exchange(t_failNextClose, false)) {
        errno = EIO;
        return EOF;
    }
    return result;
}

namespace {

using fakes::dlog::Has;

constexpr const char* kTemporary = ZOL_PATH_POLICY ".new";

class StoredPolicyFile : public PolicyManagerTest {
protected:
    StoredPolicyFile() { fakes::MakeDeviceFolder(ZOL_PATH_STATE_DIR); }

    static std::string Mapped(const std::string& path) { return DevicePath(path); }

    /// Pushes a policy that cannot be stored, over one that is.
    void ExpectRefusedAndOldKept(const std::string& reason) {
        fakes::vconf::SetBool(kPowerOnKey, true);
        EXPECT_FALSE(m_manager->UpdatePolicy(PolicyFor("db/new")));
        EXPECT_EQ(StoredPolicy(), PolicyFor("db/old"));
        EXPECT_FALSE(IsRunning());
        EXPECT_FALSE(IsPowerOnPrepared());
        ExpectErrors({reason, "Something went wrong with storing of policy"});
    }
    void ExpectNotLoaded(const std::string& reason, int priority) {
        Start();
        zol::ZOLPolicy policy;
        EXPECT_FALSE(m_manager->LoadPolicy(policy));
        EXPECT_FALSE(IsRunning());
        ExpectLogged(priority, {reason});
    }
};

TEST_F(StoredPolicyFile, BelongsToThePolicyAccountAndIsNotForEveryone) {
    const mode_t mask = umask(022);
    EXPECT_TRUE(Start().UpdatePolicy(PolicyFor("db/a")));
    umask(mask);

    struct stat status = {};
    ASSERT_EQ(stat(Mapped(ZOL_PATH_POLICY).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    if (geteuid() == 0) {
        EXPECT_EQ(status.st_uid, 951U);
        EXPECT_EQ(status.st_gid, 951U);
    }
}

TEST_F(StoredPolicyFile, AFullDiskLeavesTheOldPolicy) {
    StartWith(PolicyFor("db/old"));
    {
        const FullDisk disk(50);
        EXPECT_FALSE(m_manager->UpdatePolicy(PolicyFor("db/old")));
    }
    EXPECT_EQ(StoredPolicy(), PolicyFor("db/old"));
    EXPECT_FALSE(fakes::DeviceFileExists(kTemporary));
    EXPECT_FALSE(IsRunning());
    EXPECT_FALSE(Has("Policy written, size: "));
    ExpectErrors({"Written policy size differs from expected, written: 50, expected: " +
                  std::to_string(PolicyFor("db/old").size())});
}

TEST_F(StoredPolicyFile, AFileThatCannotBeSyncedClosedOrMadeLeavesTheOldPolicy) {
    StartWith(PolicyFor("db/old"));
    t_failNextSync = true;
    ExpectRefusedAndOldKept("Could not sync file: Input/output error");
    t_failNextClose = true;
    ExpectRefusedAndOldKept("Could not close file: Input/output error");
    EXPECT_EQ(Logged("Policy written, size: "), 2);
    EXPECT_FALSE(fakes::DeviceFileExists(kTemporary));

    fakes::MakeDeviceFolder(kTemporary);
    ExpectRefusedAndOldKept("Unable to create file /var/lib/zol/policy.xml, errno 17");
}

TEST_F(StoredPolicyFile, ALinkInThePlaceOfTheTemporaryFileIsNotFollowed) {
    StartWith(PolicyFor("db/old"));
    fakes::WriteDeviceFile("/etc/victim", "untouched");
    ASSERT_EQ(symlink(Mapped("/etc/victim").c_str(), Mapped(kTemporary).c_str()), 0);

    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/new")));
    EXPECT_EQ(StoredPolicy(), PolicyFor("db/new"));
    EXPECT_EQ(fakes::ReadDeviceFile("/etc/victim"), "untouched");
}

TEST_F(StoredPolicyFile, IsWrittenSyncedMovedIntoPlaceAndMadeToLastInThatOrder) {
    Start();
    const std::string xml = PolicyFor("db/a");
    std::vector<std::string> steps;
    t_durableSteps = &steps;
    EXPECT_TRUE(m_manager->UpdatePolicy(xml));
    t_durableSteps = nullptr;

    EXPECT_EQ(steps, (std::vector<std::string>{"sync " + std::to_string(xml.size()) + " bytes",
                                               "rename policy.xml.new to policy.xml", "sync folder"}));
}

TEST_F(StoredPolicyFile, AHalfWrittenFileOfAPowerCutIsPassedOverAndOverwritten) {
    fakes::WriteDeviceFile(kTemporary, PolicyFor("db/half").substr(0, 60) + std::string(5000, ' '));
    StartWith(PolicyFor("db/old"));
    EXPECT_EQ(fakes::vconf::Registrations("db/old"), 1);

    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/new")));
    EXPECT_EQ(StoredPolicy(), PolicyFor("db/new"));
    EXPECT_FALSE(fakes::DeviceFileExists(kTemporary));
}

TEST_F(StoredPolicyFile, AFolderInItsPlaceIsNeitherReadNorReplaced) {
    fakes::MakeDeviceFolder(ZOL_PATH_POLICY);
    ExpectNotLoaded("Unable to open policy /var/lib/zol/policy.xml, errno: 21, message: Is a directory",
                    DLOG_PRIORITY_DEBUG);

    EXPECT_FALSE(m_manager->UpdatePolicy(PolicyFor("db/a")));
    EXPECT_TRUE(Has("Unable to replace file /var/lib/zol/policy.xml, errno 21"));
    EXPECT_FALSE(fakes::DeviceFileExists(kTemporary));
}

/// While it lives no file can be opened, as when the process has too many.
class NoDescriptors {
public:
    NoDescriptors() {
        g_main_context_default();  // has one of its own, which the daemon has long made
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_before), 0);
        const int lowest = dup(STDIN_FILENO);
        EXPECT_EQ(close(lowest), 0);
        const rlimit none{static_cast<rlim_t>(lowest), m_before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~NoDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &m_before), 0); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit m_before{};
};

TEST_F(StoredPolicyFile, OneThatCannotBeReadForAWhileIsAppliedAsSoonAsItCan) {
    Start();
    StorePolicy(PolicyFor("db/a"));
    {
        const NoDescriptors none;
        m_manager->ReloadSchedule();
        EXPECT_TRUE(LetRetryCome());
    }
    EXPECT_FALSE(IsRunning());
    EXPECT_EQ(fakes::dlog::Count("the stored policy cannot be read: trying again until it can"), 1);

    EXPECT_TRUE(LetRetryCome());
    EXPECT_TRUE(IsRunning());
    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
    EXPECT_FALSE(LetRetryCome());
}

TEST_F(StoredPolicyFile, MemoryThatRunsOutWhileItIsReadAgainDoesNotLeaveItUnwatched) {
    std::size_t left = 0;
    for (std::size_t allocation = 1; left == 0; ++allocation) {
        StartWith("");
        StorePolicy(PolicyFor("db/a"));
        {
            const NoDescriptors none;
            m_manager->ReloadSchedule();
        }
        FailAllocation(allocation);
        EXPECT_TRUE(LetRetryCome());
        left = FailAllocation(0);

        LetRetryCome();
        ASSERT_EQ(fakes::vconf::Registrations("db/a"), 1) << allocation;
        EXPECT_FALSE(LetRetryCome());
    }
}

TEST_F(StoredPolicyFile, OneThatCannotBeReadForAWhileGivesWayToANewOne) {
    Start();
    StorePolicy(PolicyFor("db/a"));
    {
        const NoDescriptors none;
        m_manager->ReloadSchedule();
    }
    EXPECT_TRUE(m_manager->UpdatePolicy(PolicyFor("db/b")));
    LetRetryCome();

    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 1);
    EXPECT_EQ(fakes::dlog::Count("Set policy information."), 0) << "nothing was read again";
}

TEST_F(StoredPolicyFile, APipeInItsPlaceDoesNotHoldUpTheStart) {
    ASSERT_EQ(mkfifo(Mapped(ZOL_PATH_POLICY).c_str(), 0600), 0);
    ExpectNotLoaded("Unable to open policy /var/lib/zol/policy.xml, errno: 22, message: Invalid argument",
                    DLOG_PRIORITY_DEBUG);
}

TEST_F(StoredPolicyFile, AFileThatIsMalformedOrLongerThanAnyPolicyStartsNothing) {
    StorePolicy("<zolitem><zols</zolitem>");
    ExpectNotLoaded("Parsing failed.", DLOG_PRIORITY_ERROR);
    EXPECT_FALSE(LetRetryCome()) << "it will be no better then";

    ASSERT_EQ(truncate(Mapped(ZOL_PATH_POLICY).c_str(), zol::kMaxPolicyBytes + 1), 0);
    ExpectNotLoaded("Policy /var/lib/zol/policy.xml of 4194305 bytes refused, at most 4194304 are read",
                    DLOG_PRIORITY_ERROR);
}

TEST_F(StoredPolicyFile, TheLongestPolicyIsReadAgain) {
    std::string xml = PolicyFor("db/a");
    xml.resize(zol::kMaxPolicyBytes, ' ');
    StartWith(xml);

    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
}

TEST_F(StoredPolicyFile, AFileThatMayNotBeReadIsLogged) {
    Start();
    StorePolicy(PolicyFor("db/a"));
    for (const char* folder : {"", "/var", "/var/lib", ZOL_PATH_STATE_DIR}) {
        ASSERT_EQ(chmod((fakes::Root() + folder).c_str(), 0755), 0);
    }
    ASSERT_EQ(chmod(Mapped(ZOL_PATH_POLICY).c_str(), 0), 0);
    {
        const Unprivileged unprivileged;
        zol::ZOLPolicy policy;
        EXPECT_FALSE(m_manager->LoadPolicy(policy));
    }
    ExpectLogged(DLOG_PRIORITY_DEBUG,
                 {"Unable to open policy /var/lib/zol/policy.xml, errno: 13, message: Permission denied"});
}

TEST_F(StoredPolicyFile, AFileThatGivesFewerBytesThanItSaysIsRefusedAndReadAgain) {
    // Attributes of the kernel call themselves a page long.
    const char* const shorter = "/sys/devices/system/cpu/online";
    const std::string place = Mapped(ZOL_PATH_POLICY);
    ASSERT_EQ(access(shorter, R_OK), 0);
    ASSERT_EQ(symlink(shorter, place.c_str()), 0);
    ExpectNotLoaded("expected size 4096", DLOG_PRIORITY_DEBUG);

    Start();
    ASSERT_EQ(unlink(place.c_str()), 0);
    StorePolicy(PolicyFor("db/a"));
    EXPECT_TRUE(LetRetryCome());
    EXPECT_TRUE(IsRunning());
}

TEST_F(StoredPolicyFile, ATruncatedFileStillAppliesTheItemsItHolds) {
    const std::string whole = Document(ItemFor("db/a") + ItemFor("db/b"), 2);
    StartWith(whole.substr(0, whole.find("db/b") + 2));

    EXPECT_EQ(fakes::vconf::Registrations("db/a"), 1);
    EXPECT_EQ(fakes::vconf::Registrations("db/b"), 0);
    EXPECT_TRUE(IsRunning());
}

TEST_F(StoredPolicyFile, AnEmptyFileIsAPolicyWithoutItems) {
    StartWith("");
    EXPECT_FALSE(IsRunning());
    ExpectErrors({"policy_monitorCnt is zero"});
}

}  // namespace
