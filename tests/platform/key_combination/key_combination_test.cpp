#include "key_combination.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/input.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/glib_handles.h"
#include "base/unique_fd.h"
#include "child_process.h"
#include "device_path.h"
#include "files.h"
#include "key_combination/combinations.h"
#include "log_lines.h"
#include "temporary_folder.h"
#include "waiting.h"

namespace {

namespace fs = std::filesystem;
using platform::Combination;
using platform::CombinationTracker;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kOne = 1;
constexpr int kTwo = 2;

std::vector<Combination> Read(const std::string& text, const std::vector<std::string>& complaints = {}) {
    std::istringstream table(text);
    std::vector<std::string> found;
    std::vector<Combination> combinations = platform::ReadCombinations(table, found);
    EXPECT_EQ(found, complaints);
    return combinations;
}

TEST(CombinationTable, ALineNamesAnIdAndTheKeysHeldTogether) {
    EXPECT_THAT(Read("# comment\n\n 95 = KEY_RED + KEY_GREEN # two keys\n96=KEY_OK\r\n0=KEY_A+KEY_B+KEY_C"),
                ElementsAre(Combination{95, {KEY_RED, KEY_GREEN}}, Combination{96, {KEY_OK}},
                            Combination{0, {KEY_A, KEY_B, KEY_C}}));
}

TEST(CombinationTable, WrongLinesAreNamedAndTheOthersCount) {
    const auto combinations = Read(
        "95 KEY_RED\n128 = KEY_RED\n-1 = KEY_RED\nred = KEY_RED\n95 = KEY_RED + KEY_BLEU\n95 =\n"
        "95 = KEY_RED + + KEY_BLUE\n99999999999 = KEY_RED\n96 = KEY_BLUE\n",
        {"line 1: no \"=\"", "line 2: \"128\" is no id from 0 to 127",
         "line 3: \"-1\" is no id from 0 to 127", "line 4: \"red\" is no id from 0 to 127",
         "line 5: unknown key KEY_BLEU", "line 6: unknown key ", "line 7: unknown key ",
         "line 8: \"99999999999\" is no id from 0 to 127"});

    EXPECT_THAT(combinations, ElementsAre(Combination{96, {KEY_BLUE}}));
}

TEST(CombinationTable, TheDefaultOneHoldsStartAndStop) {
    EXPECT_THAT(
        platform::DefaultCombinations(),
        ElementsAre(Combination{95, {KEY_RED, KEY_GREEN}},
                    Combination{95, {KEY_LEFTCTRL, KEY_LEFTALT, KEY_R}}, Combination{96, {KEY_RED, KEY_BLUE}},
                    Combination{96, {KEY_LEFTCTRL, KEY_LEFTALT, KEY_S}}));
}

TEST(CombinationTracker, ACombinationFiresEachTimeItBecomesComplete) {
    CombinationTracker tracker(platform::DefaultCombinations());

    EXPECT_THAT(tracker.Set(kOne, KEY_GREEN, true), IsEmpty());
    EXPECT_THAT(tracker.Set(kOne, KEY_RED, true), ElementsAre(95));
    EXPECT_THAT(tracker.Set(kOne, KEY_RED, true), IsEmpty());
    EXPECT_THAT(tracker.Set(kOne, KEY_A, true), IsEmpty());
    EXPECT_THAT(tracker.Set(kOne, KEY_RED, false), IsEmpty());
    EXPECT_THAT(tracker.Set(kOne, KEY_RED, true), ElementsAre(95));
    EXPECT_THAT(tracker.Set(kOne, KEY_BLUE, true), ElementsAre(96));
}

TEST(CombinationTracker, TwoCombinationsOfOneIdFireOnce) {
    CombinationTracker tracker(Read("1 = KEY_A\n1 = KEY_A + KEY_B\n2 = KEY_A\n"));

    EXPECT_THAT(tracker.Set(kOne, KEY_B, true), IsEmpty());
    EXPECT_THAT(tracker.Set(kOne, KEY_A, true), ElementsAre(1, 2));
}

TEST(CombinationTracker, KeysOfSeveralDevicesCountTogether) {
    CombinationTracker tracker(platform::DefaultCombinations());

    EXPECT_THAT(tracker.Set(kOne, KEY_RED, true), IsEmpty());
    EXPECT_THAT(tracker.Set(kTwo, KEY_GREEN, true), ElementsAre(95));
    EXPECT_THAT(tracker.Set(kTwo, KEY_RED, true), IsEmpty());
    EXPECT_THAT(tracker.Set(kOne, KEY_RED, false), IsEmpty());
    EXPECT_THAT(tracker.Set(kTwo, KEY_BLUE, true), ElementsAre(96));
}

TEST(CombinationTracker, ADeviceThatGoesLetsGoOfItsKeys) {
    CombinationTracker tracker(platform::DefaultCombinations());

    EXPECT_THAT(tracker.Set(kOne, KEY_RED, true), IsEmpty());
    tracker.Forget(kOne);
    EXPECT_THAT(tracker.Set(kTwo, KEY_GREEN, true), IsEmpty());
    EXPECT_THAT(tracker.Set(kTwo, KEY_RED, true), ElementsAre(95));
}

/// The other process: the key-combination service on mocked input devices. It tells where they are, then each
/// id that fires, until it is released.
int Serve(const child::Arguments& wanted, KeyCombination_Handler handler) {
    const std::string mocked = std::getenv("UMOCKDEV_DIR");
    fs::create_directories(mocked + "/dev/input");
    fs::create_directories(DevicePath("/dev"));
    fs::create_symlink("/dev/input", DevicePath("/dev/input"));
    std::array<int, KEY_COMBINATION_COUNT> list{};
    for (const std::string& id : wanted) {
        list.at(static_cast<std::size_t>(std::atoi(id.c_str()))) = 1;
    }
    char mark = '#';
    if (KeyCombination_Initialize() != 0 ||
        KeyCombination_Set_CombinationList(list.data(), KEY_COMBINATION_COUNT) != 0 ||
        KeyCombination_Register_Handler(handler, &mark) != 0) {
        return 1;
    }
    child::Tell(mocked);
    child::WaitForRelease();
    const bool ended = KeyCombination_Delete_Handler(handler) == 0 &&
                       KeyCombination_Delete_Handler(handler) != 0 && KeyCombination_Finalize() == 0 &&
                       KeyCombination_Finalize() != 0;
    return ended ? 0 : 2;
}

void TellId(KeyComb id, void* data) {
    child::Tell(*static_cast<const char*>(data) + std::to_string(id));
}

int ServeKeys(const child::Arguments& wanted) {
    return Serve(wanted, TellId);
}

/// The handler tries to end the service that it is called by.
int ServeKeysAndEndInside(const child::Arguments& wanted) {
    return Serve(wanted, [](KeyComb id, void* data) {
        if (KeyCombination_Finalize() < 0) {
            TellId(id, data);
        }
    });
}

const child::Program kKeys("keys", ServeKeys);
const child::Program kKeysEndingInside("keys-ending-inside", ServeKeysAndEndInside);

/// Hexadecimal text of a bit set of the kernel's size for `count` bits.
std::string Bits(unsigned count, const std::vector<unsigned>& set) {
    std::vector<unsigned> bytes(std::size_t{(count + 63) / 64} * 8);
    for (const unsigned bit : set) {
        bytes[bit / 8] |= 1U << (bit % 8);
    }
    std::ostringstream text;
    for (const unsigned byte : bytes) {
        text << "0123456789ABCDEF"[byte >> 4U] << "0123456789ABCDEF"[byte & 15U];
    }
    return std::to_string(bytes.size()) + " " + text.str() + "\n";
}

/// What a keyboard answers the input library: its keys and those of them that are held.
std::string KeyboardAnswers(const std::string& device, const std::vector<unsigned>& held) {
    std::ostringstream answers;
    answers << "@DEV " << device << " (EVDEV)\n"
            << "EVIOCGVERSION 0 01000100\nEVIOCGID 0 0300010001000100\n"
            << "EVIOCGNAME 255 " << std::string(510, '0') << "\n"
            << "EVIOCGPROP " << Bits(INPUT_PROP_CNT, {}) << "EVIOCGBIT(0) " << Bits(EV_CNT, {EV_SYN, EV_KEY})
            << "EVIOCGBIT(1) "
            << Bits(KEY_CNT, {KEY_RED, KEY_GREEN, KEY_BLUE, KEY_LEFTCTRL, KEY_LEFTALT, KEY_R, KEY_S});
    const std::map<int, unsigned> others = {{EV_REL, REL_CNT}, {EV_ABS, ABS_CNT}, {EV_MSC, MSC_CNT},
                                            {EV_SW, SW_CNT},   {EV_LED, LED_CNT}, {EV_SND, SND_CNT},
                                            {EV_FF, FF_CNT}};
    for (const auto& [type, count] : others) {
        answers << "EVIOCGBIT(" << type << ") " << Bits(count, {});
    }
    answers << "EVIOCGKEY " << Bits(KEY_CNT, held) << "EVIOCGLED " << Bits(LED_CNT, {}) << "EVIOCGSW "
            << Bits(SW_CNT, {});
    return answers.str();
}

/// An input device that a test plugs in, types on and pulls out.
class Keyboard {
public:
    Keyboard(const std::string& folder, const std::string& name) : m_path(folder + "/" + name) {
        EXPECT_EQ(mkfifo(m_path.c_str(), 0600), 0);
        // There is no writing end before somebody reads.
        EXPECT_TRUE(Eventually([this] {
            m_fd.Reset(open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
            return static_cast<bool>(m_fd);
        }));
    }
    template <class... Keys>
    void Press(Keys... keys) {
        (Send(EV_KEY, keys, 1), ...);
    }
    void Release(unsigned key) { Send(EV_KEY, key, 0); }
    void Hold(unsigned key) { Send(EV_KEY, key, 2); }
    void LoseEvents() { Send(EV_SYN, SYN_DROPPED, 0); }
    /// Returns when the reader has noticed.
    void PullOut() {
        fs::remove(m_path);
        pollfd watched{m_fd.Get(), 0, 0};
        EXPECT_EQ(poll(&watched, 1, 30000), 1);
    }

private:
    void Send(unsigned type, unsigned code, int value) {
        std::array<input_event, 2> events{};
        events[0].type = static_cast<std::uint16_t>(type);
        events[0].code = static_cast<std::uint16_t>(code);
        events[0].value = value;
        events[1].type = EV_SYN;
        EXPECT_EQ(write(m_fd.Get(), events.data(), sizeof(events)), static_cast<ssize_t>(sizeof(events)));
    }

    const std::string m_path;
    base::UniqueFd m_fd;
};

class KeyService : public testing::Test {
protected:
    void SetUp() override {
        const base::GStringPtr runner(g_find_program_in_path("umockdev-run"));
        const base::GStringPtr self(g_file_read_link("/proc/self/exe", nullptr));
        if (child::IsEmulated()) {
            GTEST_SKIP() << "input devices cannot be mocked under an emulator";
        }
        ASSERT_NE(runner, nullptr) << "umockdev-run is not installed";
        m_command = {runner.get()};
        m_self = self.get();
        // The mock comes before the sanitizer's own library.
        setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    }
    /// @param held keys that the device event1 says are held whenever it is asked
    void Start(const std::vector<unsigned>& held = {}, const std::string& program = "keys") {
        Mock("event1", held);
        Mock("event2", {});
        m_command.insert(m_command.end(), {"--", m_self, "--child", program, "95", "96"});
        m_process = std::make_unique<child::Process>(child::Process::Run(m_command, m_root.Path()));
        m_folder = m_process->ReadLine() + "/dev/input";
    }
    /// Where the table is; its folder exists.
    std::string Table() const {
        fs::create_directories(m_root.Path() + "/etc/zol");
        return m_root.Path() + "/etc/zol/keycombination.conf";
    }
    /// The service comes up with the built-in table and says why.
    void ExpectBuiltInTable(const std::string& why) {
        Start();
        EXPECT_TRUE(m_log.WaitFor("/etc/zol/keycombination.conf: " + why + ": the built-in table holds"));
        Keyboard keyboard(m_folder, "event1");
        keyboard.Press(KEY_RED, KEY_GREEN);
        EndAfter({"#95"});
    }
    std::string NextId() { return m_process->ReadLine(); }
    /// These fire, and nothing goes wrong as the service ends.
    void EndAfter(const std::vector<std::string>& ids) {
        for (const std::string& id : ids) {
            EXPECT_EQ(NextId(), id);
        }
        m_process->Release();
        EXPECT_EQ(m_process->Wait(), 0);
    }

    TemporaryFolder m_root;
    PlatformLog m_log{m_root.Path()};
    std::string m_folder;

private:
    void Mock(const std::string& name, const std::vector<unsigned>& held) {
        const std::string device = "/dev/input/" + name;
        const std::string answers = m_root.Path() + "/" + name + ".ioctl";
        WriteFile(answers, KeyboardAnswers(device, held));
        m_command.push_back("--ioctl=" + device + "=" + answers);
    }

    std::string m_self;
    child::Arguments m_command;
    std::unique_ptr<child::Process> m_process;
};

TEST_F(KeyService, ADeviceThatIsPluggedInLaterIsHeard) {
    Start();
    EXPECT_TRUE(m_log.WaitFor("no input device in /dev/input: no key combinations until one appears"));
    Keyboard keyboard(m_folder, "event1");
    EXPECT_TRUE(m_log.WaitFor("input device event1 is there: key combinations work"));

    keyboard.Press(KEY_RED, KEY_GREEN);
    EXPECT_EQ(NextId(), "#95");
    keyboard.Hold(KEY_GREEN);
    keyboard.Release(KEY_GREEN);
    keyboard.Press(KEY_BLUE);
    EndAfter({"#96"});
}

TEST_F(KeyService, ADeviceThatIsPulledOutLetsGoOfItsKeys) {
    Start();
    Keyboard first(m_folder, "event1");
    Keyboard second(m_folder, "event2");
    first.Press(KEY_RED);
    first.PullOut();

    second.Press(KEY_GREEN, KEY_BLUE, KEY_RED);
    EXPECT_EQ(NextId(), "#95");
    EXPECT_EQ(NextId(), "#96");

    second.PullOut();
    Keyboard again(m_folder, "event1");
    again.Press(KEY_RED, KEY_BLUE);
    EndAfter({"#96"});
}

TEST_F(KeyService, KeysThatAreHeldAsTheDeviceComesCount) {
    Start({KEY_RED});
    Keyboard second(m_folder, "event2");
    second.Press(KEY_BLUE);
    const Keyboard first(m_folder, "event1");

    EndAfter({"#96"});
}

TEST_F(KeyService, LostEventsAreMadeUpFor) {
    Start({KEY_RED});
    Keyboard first(m_folder, "event1");
    Keyboard second(m_folder, "event2");
    second.Press(KEY_GREEN);
    EXPECT_EQ(NextId(), "#95");

    // It was pressed again, but that is among the lost events.
    first.Release(KEY_RED);
    first.LoseEvents();

    EndAfter({"#95"});
}

TEST_F(KeyService, TheTableFileSaysWhichKeys) {
    WriteFile(Table(), "96 = KEY_R + KEY_S\n97 = KEY_R\nnonsense\n");
    Start();
    EXPECT_TRUE(m_log.WaitFor("/etc/zol/keycombination.conf: line 3: no \"=\""));
    Keyboard keyboard(m_folder, "event1");

    keyboard.Press(KEY_RED, KEY_GREEN, KEY_R, KEY_S);

    EndAfter({"#96"});
}

TEST_F(KeyService, APipeInTheTablesPlaceHoldsNobodyUp) {
    ASSERT_EQ(mkfifo(Table().c_str(), 0600), 0);
    ExpectBuiltInTable("not a regular file");
}

TEST_F(KeyService, AFolderInTheTablesPlaceIsNoEmptyTable) {
    fs::create_directory(Table());
    ExpectBuiltInTable("not a regular file");
}

TEST_F(KeyService, ATableThatCannotBeOpenedIsTold) {
    // A link to itself: nobody can open it, root neither.
    fs::create_symlink("keycombination.conf", Table());
    ExpectBuiltInTable("Too many levels of symbolic links");
}

TEST_F(KeyService, ATableThatIsNoneByItsSizeIsNotRead) {
    WriteFile(Table(), std::string(65537, '#'));
    ExpectBuiltInTable("more than 65536 bytes");
}

TEST_F(KeyService, AHandlerCannotEndTheServiceThatCallsIt) {
    Start({}, "keys-ending-inside");
    Keyboard keyboard(m_folder, "event1");

    keyboard.Press(KEY_RED, KEY_GREEN, KEY_BLUE);

    EndAfter({"#95", "#96"});
}

TEST_F(KeyService, WhatIsNoInputDeviceIsNamedAndLeftAlone) {
    Start();
    WriteFile(m_folder + "/event7", "no device");
    WriteFile(m_folder + "/mouse0", "other interface");
    EXPECT_TRUE(m_log.WaitFor("input device event7: "));
    Keyboard keyboard(m_folder, "event1");

    keyboard.Press(KEY_RED, KEY_BLUE);

    EndAfter({"#96"});
}

}  // namespace
