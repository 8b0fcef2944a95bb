/// The life of the service: who starts it, how it ends, what its clients notice of that.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "child_process.h"
#include "device_paths.h"
#include "key_store_fixture.h"
#include "waiting.h"

namespace fs = std::filesystem;

namespace {

using child::Process;

/// Sets a key to 1, 2, 3, ... and tells each value that is acknowledged, until the test releases it.
int CountUp(const child::Arguments& arguments) {
    for (int value = 1; value <= std::atoi(arguments[1].c_str()); ++value) {
        while (vconf_set_int(arguments[0].c_str(), value) != 0) {
            usleep(1000);
        }
        child::Tell(std::to_string(value));
    }
    return 0;
}
const child::Program kCountUp("count-up", CountUp);

class ServiceOfTheStore : public KeyStoreTest {
protected:
    void Restart() {
        Service().Kill();
        Service().Start();
    }
};

TEST_F(ServiceOfTheStore, KilledAgainAndAgainLosesNoAcknowledgedValueAndNoLastChange) {
    for (const std::string key : {"db/k", "memory/k"}) {
        Heard heard;
        ASSERT_TRUE(heard.Watch(key));
        Process writer("count-up", {key, "400"}, Root());
        int last = 0;
        for (int round = 0; round < 8; ++round) {
            for (int line = 0; line < 40; ++line) {
                last = std::stoi(writer.ReadLine());
            }
            Service().Kill();
            Service().Start();
            EXPECT_GE(GetInt(key), last);
        }
        writer.ReadAll();
        EXPECT_EQ(writer.Wait(), 0);
        EXPECT_EQ(GetInt(key), 400);
        EXPECT_TRUE(ServeUntil([&] { return heard.number == 400; }));
    }
}

TEST_F(ServiceOfTheStore, IsAskedAgainByACallThatItsEndCutsOffRepeatedly) {
    if (child::IsEmulated()) {
        GTEST_SKIP() << "an emulated program cannot start another one";
    }
    ASSERT_TRUE(SetInt("db/k", 5));
    Service().Kill();
    const std::string path = Root() + ZOL_PATH_RUN_DIR + "/vconf.sock";
    fs::remove(path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const base::UniqueFd dying(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(dying.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(dying.Get(), 1), 0);
    std::thread end([&] {
        for (int connection = 0; connection < 3; ++connection) {
            const base::UniqueFd cutOff(accept(dying.Get(), nullptr, nullptr));
            if (connection == 2) {
                fs::remove(path);
            }
        }
    });
    EXPECT_EQ(GetInt("db/k"), 5);
    shutdown(dying.Get(), SHUT_RDWR);
    end.join();
}

TEST_F(ServiceOfTheStore, TellsWhatHasChangedWhileAClientWasAwayAndNothingElse) {
    Heard changed;
    Heard setAgain;
    Heard removed;
    Heard cameAndWent;
    Heard untouched;
    Heard neverSet;
    for (const char* key : {"db/changed", "db/again", "db/removed", "db/untouched"}) {
        ASSERT_TRUE(SetInt(key, 1));
    }
    ASSERT_TRUE(changed.Watch("db/changed") && setAgain.Watch("db/again") && removed.Watch("db/removed") &&
                cameAndWent.Watch("memory/came") && untouched.Watch("db/untouched") &&
                neverSet.Watch("db/never"));
    Restart();
    InAnotherProcess({"int", "db/changed", "2", "int", "db/again", "1", "unset", "db/removed", "int",
                      "memory/came", "1", "unset", "memory/came"});
    Restart();
    EXPECT_TRUE(ServeUntil([&] {
        return changed.number == 2 && setAgain.calls == 1 && removed.calls == 1 && cameAndWent.calls == 1;
    }));
    EXPECT_EQ(removed.type, VCONF_TYPE_NONE);
    EXPECT_EQ(cameAndWent.type, VCONF_TYPE_NONE);
    ASSERT_TRUE(SetInt("db/changed", 3));
    EXPECT_TRUE(ServeUntil([&] { return changed.number == 3; }));
    EXPECT_EQ(changed.calls, 2);
    EXPECT_EQ(untouched.calls, 0);
    EXPECT_EQ(neverSet.calls, 0);
}

TEST_F(ServiceOfTheStore, MayBeMissingWhenAKeyIsWatched) {
    Service().Kill();
    fs::remove_all(Root() + "/var/lib/zol");
    std::ofstream(Root() + "/var/lib/zol") << "nobody can start one now";
    Heard heard;
    EXPECT_FALSE(SetInt("db/k", 1));
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(GetInt("db/k"), -1);
    ASSERT_TRUE(heard.Watch("db/k"));
    EXPECT_EQ(Log().Count("no service at /run/zol/vconf.sock"), 1);
    fs::remove(Root() + "/var/lib/zol");
    Service().Start();
    EXPECT_EQ(InAnotherProcess({"int", "db/k", "5"}), "0\n");
    EXPECT_TRUE(ServeUntil([&] { return heard.number == 5; }));
}

TEST_F(ServiceOfTheStore, ThatHangsHoldsItsClientsUpForABoundedTime) {
    ASSERT_TRUE(SetInt("db/k", 1));
    const pid_t service = Service().Pid();
    kill(service, SIGSTOP);
    const auto begin = std::chrono::steady_clock::now();
    for (int call = 0; call < 100; ++call) {
        EXPECT_FALSE(SetInt("db/k", 2));
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    kill(service, SIGCONT);
    EXPECT_TRUE(Eventually([] { return SetInt("db/k", 3); }));
}

TEST_F(ServiceOfTheStore, IsSaidToServeWhileItRunsAndIsNotStartedByTheQuestion) {
    EXPECT_EQ(vconf_is_served(), 1);
    ASSERT_TRUE(SetInt("db/k", 1));
    EXPECT_EQ(vconf_is_served(), 1);
    Service().Kill();
    EXPECT_EQ(vconf_is_served(), 0);
    EXPECT_EQ(Service().Pid(), 0);
}

TEST_F(ServiceOfTheStore, IsNotSaidToServeWhereItsSocketIsOnlyHeldForIt) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give the store to another account";
    }
    Service().Kill();
    fs::remove(Root() + "/run/zol/vconf.sock");
    ASSERT_EQ(chown(DurableFolder().c_str(), 1, 1), 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (Root() + "/run/zol/vconf.sock").copy(address.sun_path, sizeof(address.sun_path) - 1);
    const base::UniqueFd held(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(held.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(held.Get(), 1), 0);
    EXPECT_EQ(vconf_is_served(), 0);
    // Whoever was started for the socket has taken a client in.
    const base::UniqueFd client = RawConnection(Root());
    const base::UniqueFd taken(accept(held.Get(), nullptr, nullptr));
    EXPECT_EQ(vconf_is_served(), 1);
}

TEST_F(ServiceOfTheStore, LeavesTheFilesToTheOneThatServesAlready) {
    ASSERT_TRUE(SetInt("db/k", 1));
    const pid_t first = Service().Pid();
    EXPECT_EQ(Process::Of("zol_vconfd", {}, Root()).Wait(), 0);
    EXPECT_EQ(Service().Pid(), first);
    EXPECT_EQ(GetInt("db/k"), 1);
}

TEST_F(ServiceOfTheStore, EndsWhenItsLastClientHasBeenGoneForAWhile) {
    Service().Kill();
    Service().Start({"--idle-ms", "300"});
    {
        const base::UniqueFd client = RawConnection(Root());
        ASSERT_TRUE(client);
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        EXPECT_NE(Service().Pid(), 0);
    }
    EXPECT_EQ(Service().WaitForEnd(), 0);
    EXPECT_FALSE(fs::exists(Root() + "/run/zol/vconf.sock"));
}

/// What a client starts when nobody serves.
class ServiceStartedByAClient : public KeyStoreTest {
protected:
    void SetUp() override {
        if (child::IsEmulated()) {
            GTEST_SKIP() << "an emulated program cannot start another one";
        }
        Service().Kill();
    }
    std::string Refused() {
        EXPECT_EQ(InAnotherProcess({"int", "db/k", "1"}), "-1\n");
        return "is refused, other accounts can write to it";
    }
};

TEST_F(ServiceStartedByAClient, IsOneForAll) {
    std::vector<Process> clients;
    for (int index = 0; index < 6; ++index) {
        clients.emplace_back("vconf", child::Arguments{"int", "db/k" + std::to_string(index), "1"}, Root());
    }
    for (Process& client : clients) {
        EXPECT_EQ(client.ReadAll(), "0\n");
        EXPECT_EQ(client.Wait(), 0);
    }
    const pid_t service = Service().Pid();
    for (int index = 0; index < 6; ++index) {
        EXPECT_EQ(GetInt("db/k" + std::to_string(index)), 1) << index;
    }
    EXPECT_EQ(Service().Pid(), service);
    EXPECT_EQ(Log().Count(""), 0);
}

TEST_F(ServiceStartedByAClient, IsDetachedFromIt) {
    std::array<int, 2> inherited{};
    ASSERT_EQ(pipe(inherited.data()), 0);  // not close-on-exec
    const base::UniqueFd reading(inherited[0]);
    const base::UniqueFd writing(inherited[1]);
    ASSERT_TRUE(SetInt("db/k", 1));
    const pid_t service = Service().Pid();
    ASSERT_GT(service, 0);
    EXPECT_EQ(getsid(service), service);
    const std::string folder = "/proc/" + std::to_string(service);
    for (const char* fd : {"0", "1", "2"}) {
        EXPECT_EQ(fs::read_symlink(folder + "/fd/" + fd), "/dev/null");
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(folder + "/fd")) {
        EXPECT_EQ(fs::read_symlink(entry.path()).string().find("pipe:"), std::string::npos) << entry.path();
    }
    EXPECT_EQ(fs::read_symlink(folder + "/cwd"), "/");
}

TEST_F(ServiceStartedByAClient, RefusesAFolderThatAnotherAccountCanWriteTo) {
    for (const std::string& folder : {DurableFolder(), MemoryFolder()}) {
        chmod(folder.c_str(), 0770);
        const int lines = Log().Count(Refused());
        EXPECT_EQ(Log().Count(Refused()), lines + 1);
        chmod(folder.c_str(), 0700);
    }
    chmod((Root() + "/var/lib/zol").c_str(), 0777);
    const int lines = Log().Count(Refused());
    EXPECT_GT(lines, 0);
    chmod((Root() + "/var/lib/zol").c_str(), 0755);
    EXPECT_EQ(InAnotherProcess({"int", "db/k", "1"}), "0\n");
}

TEST_F(ServiceStartedByAClient, DoesNotFollowALinkInTheFoldersPlace) {
    fs::remove_all(DurableFolder());
    fs::create_directory(Root() + "/elsewhere");
    fs::create_directory_symlink(Root() + "/elsewhere", DurableFolder());
    EXPECT_EQ(InAnotherProcess({"int", "db/k", "1"}), "-1\n");
    EXPECT_TRUE(fs::is_empty(Root() + "/elsewhere"));
    EXPECT_EQ(Log().Count("vconfd cannot be used"), 1);
}

TEST_F(ServiceStartedByAClient, WorksBehindALinkOfTheImage) {
    fs::remove_all(Root() + "/var/lib");
    fs::create_directories(Root() + "/opt/lib");
    fs::create_directory_symlink("/opt/lib", Root() + "/var/lib");
    EXPECT_EQ(InAnotherProcess({"int", "db/k", "2", "get", "db/k"}), "0\nint 2\n");
    EXPECT_TRUE(fs::exists(Root() + "/opt/lib/zol/vconfd/vconf.db"));
    fs::remove(Root() + "/var/lib");
}

}  // namespace
