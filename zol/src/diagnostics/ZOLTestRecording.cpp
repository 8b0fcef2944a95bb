#include "ZOLTestRecording.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <utility>

#include "ExceptionWall.h"
#include "Log.h"
#include "ShellQuote.h"
#include "TSFileSystem.h"
#include "WorkerTask.h"
#include "base/process.h"
#include "cv/TCTraceControl.h"
#include "device_path.h"
#include "device_paths.h"
#include "display_capture.h"
#include "platform_clock.h"
#include "usb_device.h"
#include "vconf.h"

namespace {

constexpr const char* kLogModule = "zol::KeyInputManager";
constexpr const char* kSource = "zol/src/ZOLTestRecording";
constexpr int kCreateLine = 45;

constexpr KeyComb kStartCombination = 95;
constexpr KeyComb kStopCombination = 96;

constexpr const char* kStateKey = "db/window_system/system_state";  ///< 1 while a recording runs, else 0
constexpr int kRecording = 1;
constexpr int kIdle = 0;

constexpr const char* kScenarioFile = "/recorded_scenario.txt";
constexpr const char* kFocusLog = "/csfs_log.txt";
constexpr const char* kCaptureFolder = "/ScreenCapture/";
constexpr const char* kDumpFolder = "/dumpCV/";
constexpr const char* kArchive = "testrecording.tar.gz";
constexpr std::array<const char*, 4> kArchiveEntries{"recorded_scenario.txt", "csfs_log.txt", "dumpCV",
                                                     "ScreenCapture"};

constexpr const char* kStartToast =
    "app_launcher -s org.kaldo.alert-syspopup type \"toast\" text \"Recording started...\" timeout 5";
constexpr const char* kStopToast =
    "app_launcher -s org.kaldo.alert-syspopup type \"toast\" text \"Recording finishing...\" timeout 10";

/// How long a stop waits, in milliseconds, until the last focus lines are on the stick.
constexpr int kFocusLogEndMs = 5000;

constexpr int kCaptureWidth = 960;   ///< pixels
constexpr int kCaptureHeight = 540;  ///< pixels
constexpr int kCaptureQuality = 100;

/// The local time as year, month, day, hour, minute, second without separators.
std::string TimeStamp() {
    platform_time_t now{};
    platform_clock_realtime(&now);
    const auto seconds = static_cast<time_t>(now.seconds);
    tm local{};
    localtime_r(&seconds, &local);
    // Room for whatever an int can print, so that nothing is ever cut.
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "%04d%02d%02d%02d%02d%02d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return text.data();
}

/// Makes way for a file that is written anew: removes the old one, and a link, device or pipe in its place,
/// which would send what is written elsewhere. A folder stays; nothing can be written into that. False when
/// something is left that can.
bool MakeWay(const std::string& path) {
    struct stat status {};
    return lstat(DevicePath(path).c_str(), &status) != 0 || S_ISDIR(status.st_mode) ||
           TSFileSystem::RemoveFile(path);
}

/// The shell's command that follows the focus lines of the platform log into a file in the background.
std::string FocusLogCommand(const std::string& file) {
    return "dlogutil -v kerneltime CSFS | grep OnFocused > " + zol::ShellQuote(file) + "&";
}

/// The shell's command that packs what is in a folder.
std::string ArchiveCommand(const std::string& folder) {
    std::string command = "tar -cvzf " + zol::ShellQuote(folder + "/" + kArchive);
    for (const char* entry : kArchiveEntries) {
        command += " -C " + zol::ShellQuote(folder) + " " + entry;
    }
    return command;
}

}  // namespace

std::atomic<bool> TCTestRecording::m_testflag{false};
base::UniqueFd& TCTestRecording::m_focusLogWriters = *new base::UniqueFd;

bool TCTestRecording::Create() {
    return StartWorkerTask(*this, *this, "ZOLTestRecording", kSource, kCreateLine);
}

void TCTestRecording::Destroy() {
    removeKeyCombinationHandler();
    ZOL_LOG(LOG_ERROR, "[TCTestRecording] Destroy");
    EndWorkerTask(*this, *this);
}

void TCTestRecording::setKeyCombinationHandler() {
    m_keys.Reset();  // first: a late withdrawal would take the new registration away
    if (KeyCombination_Initialize() != 0) {
        return;
    }
    m_keys = base::Subscription([] {
        KeyCombination_Delete_Handler(keyCombinationHandlerCb);
        KeyCombination_Finalize();
    });
    std::array<int, KEY_COMBINATION_COUNT> combinations{};
    combinations[kStartCombination] = 1;
    combinations[kStopCombination] = 1;
    KeyCombination_Set_CombinationList(combinations.data(), KEY_COMBINATION_COUNT);
    KeyCombination_Register_Handler(keyCombinationHandlerCb, nullptr);
}

void TCTestRecording::removeKeyCombinationHandler() {
    m_keys.Reset();
}

bool TCTestRecording::t_OnEvent(const CSEvent* /*event*/) {
    ZOL_LOG(LOG_ERROR, "[TestRecording] t_OnEvent");
    return false;
}

void TCTestRecording::keyCombinationHandlerCb(KeyComb id, void* /*userData*/) {
    zol::CatchAll(kLogModule, [id] {
        if (id == kStartCombination) {
            m_Start();
        } else if (id == kStopCombination) {
            m_Stop();
        }
    });
}

void TCTestRecording::m_Start() {
    if (m_testflag.load(std::memory_order_relaxed)) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] Already recording...");
        return;
    }
    ZOL_LOG(LOG_ERROR, "[TestRecording] Start recording...");
    m_RecordingState(kRecording);
    if (m_runShell(kStartToast) == -1) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] Fail to run shell");
    }
}

void TCTestRecording::m_Stop() {
    if (!m_testflag.load(std::memory_order_relaxed)) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] Recording hasn't been run yet.");
        return;
    }
    ZOL_LOG(LOG_ERROR, "[TestRecording] Stop recording...");
    if (m_runShell(kStopToast) == -1) {
        // The recording stays active: the tester may try again.
        ZOL_LOG(LOG_ERROR, "[TestRecording] Fail to run shell");
        return;
    }
    m_RecordingState(kIdle);
    m_Make_tarfile();
}

void TCTestRecording::m_RecordingState(int state) {
    const std::optional<std::string> usb = m_get_usb_device_path();
    if (!usb) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] Fail to get USB Path");
        return;
    }
    if (vconf_set_int(kStateKey, state) != 0) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] vconf set failed for : %d", state);
        return;
    }
    ZOL_LOG(LOG_ERROR, "[TestRecording] value of %s is %d", kStateKey, state);
    if (state == kRecording) {
        m_testflag.store(true, std::memory_order_relaxed);
        const std::string scenario = *usb + kScenarioFile;
        if (!MakeWay(scenario)) {
            ZOL_LOG(LOG_ERROR, "Failed to remove recorded scenario file! Dir: %s", scenario.c_str());
            return;
        }
        m_EnableDlog(*usb);
    } else if (state == kIdle) {
        m_testflag.store(false, std::memory_order_relaxed);
        m_DisableDlog();
        m_ScreenCapture(*usb + kCaptureFolder);
        m_saveDumpWrapper(ZOL_PATH_TRACE_DUMP, *usb + kDumpFolder);
    }
}

void TCTestRecording::m_EnableDlog(const std::string& dir) {
    const std::string log = dir + kFocusLog;
    if (!MakeWay(log)) {
        ZOL_LOG(LOG_ERROR, "Failed to remove recorded scenario file! Dir: %s", log.c_str());
        return;
    }
    ZOL_LOG(LOG_ERROR, "[TestRecording] StartDlog cmd is %s", FocusLogCommand(log).c_str());
    // The writers outlive the shell that starts them. They inherit the writing end of this pipe, so that its
    // reading end tells when the last one is gone.
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        ends = {-1, -1};  // without it the stop does not wait
    }
    m_focusLogWriters.Reset(ends[0]);
    const base::UniqueFd inherited(ends[1]);
    // A focus log that does not begin is missing in the archive.
    static_cast<void>(m_runShell(FocusLogCommand(DevicePath(log)), inherited.Get()));
}

void TCTestRecording::m_DisableDlog() {
    static_cast<void>(m_runShell("killall dlogutil"));  // fails when it has ended by itself
    // The filter behind it flushes its buffer only when its input ends; the archive must not be made before.
    pollfd writers{m_focusLogWriters.Get(), 0, 0};
    if (m_focusLogWriters && poll(&writers, 1, kFocusLogEndMs) == 0) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] the focus log is still being written");
    }
    m_focusLogWriters.Reset();
}

void TCTestRecording::m_ScreenCapture(const std::string& dir) {
    if (TSFileSystem::FolderExists(dir) && !TSFileSystem::RemoveFolder(dir)) {
        ZOL_LOG(LOG_ERROR, "Failed to remove Screen Capture directory! Dir: %s", dir.c_str());
        return;
    }
    // Without parents: where the stick was, its folder must not be made anew on the internal flash.
    if (!TSFileSystem::MakeDir(dir, false)) {
        ZOL_LOG(LOG_ERROR, "Failed to create Screen Capture directory! Dir: %s", dir.c_str());
        return;
    }
    const std::string now = TimeStamp();
    ZOL_LOG(LOG_ERROR, "[TestRecording] now time is %s", now.c_str());
    const std::string file = dir + "Capturefile_" + now;
    const dc_capture_request request{file.c_str(),     kCaptureWidth,  kCaptureHeight, DC_PLANE_ALL,
                                     DC_ROTATION_NONE, DC_FORMAT_JPEG, kCaptureQuality};
    if (dc_request_capture_to_file_sync(&request) != 0) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] dc_request_capture_to_file_sync failed");
    }
}

void TCTestRecording::m_saveDumpWrapper(const std::string& source, const std::string& destination) {
    if (TSFileSystem::FolderExists(destination) && !TSFileSystem::RemoveFolder(destination)) {
        ZOL_LOG(LOG_ERROR, "Failed to remove Screen Capture directory! Dir: %s", destination.c_str());
        return;
    }
    if (cv::TCTraceControl* control = cv::api::GetControl()) {
        static_cast<void>(control->SaveDump(source, destination, 1, 1));  // logged by the library
    }
}

void TCTestRecording::m_Make_tarfile() {
    const std::optional<std::string> usb = m_get_usb_device_path();
    if (!usb) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] Fail to get USB Path");
        return;
    }
    const std::string archive = *usb + "/" + kArchive;
    if (!MakeWay(archive)) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] Failed to remove the old archive! Dir: %s", archive.c_str());
        return;
    }
    // tar fails whenever one of the entries is missing, and packs the others.
    static_cast<void>(m_runShell(ArchiveCommand(DevicePath(*usb))));
    ZOL_LOG(LOG_INFO, "[TestRecording] Done making tar file.");
}

std::optional<std::string> TCTestRecording::m_get_usb_device_path() {
    if (usb_device_init() != 0) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] failed to initialize usb device\n");
        return std::nullopt;
    }
    const base::Subscription service([] { usb_device_fini(); });
    usb_device_list_t* list = nullptr;
    if (usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list) != 0) {
        ZOL_LOG(LOG_ERROR, "[TestRecording]failed to get mass storage list from usb-server\n");
        return std::nullopt;
    }
    usb_device_t* device = usb_device_list_get_first(list);
    if (device == nullptr) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] failed to get USB device");
        return std::nullopt;
    }
    std::array<char, 4096> path{};
    if (usb_device_get_mountpath(device, path.data(), path.size()) != 0) {
        return std::nullopt;
    }
    return path.data();
}

int TCTestRecording::m_runShell(const std::string& command, int inherited) {
    base::Command shell;
    shell.words = {"/bin/sh", "-c", command};
    shell.inherited = inherited;
    const base::ProcessEnd end = base::RunProcess(shell);
    if (end.error) {
        ZOL_LOG(LOG_ERROR, "[TestRecording] cannot run \"%s\": %s", command.c_str(),
                end.error.message().c_str());
        return -1;
    }
    return end.status;
}
