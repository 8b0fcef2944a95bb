#include "ZOLKpiManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <optional>
#include <utility>

#include "KPILogFramework.h"
#include "Log.h"
#include "Time.h"
#include "VconfString.h"
#include "base/handles.h"
#include "base/unique_fd.h"
#include "device_path.h"
#include "device_paths.h"
#include "platform_clock.h"
#include "runtime_info.h"

namespace {

constexpr const char* kLogModule = "zol::KpiManager";

constexpr const char* kUnknown = "NULL";
constexpr const char* kHwduidKey = "db/comss/hwduid";
constexpr std::size_t kHwduidLength = 13;
constexpr std::size_t kTgidLength = 36;
constexpr std::size_t kLcidLength = 10;
constexpr int kTgidAttempts = 3;
constexpr unsigned long kRetryPauseUs = 10000;

/// The release marker is looked for once in the life of the process.
std::atomic<bool> g_releaseModeIsUnread{true};

base::UniqueFd OpenForReading(const char* devicePath) {
    return base::UniqueFd(open(DevicePath(devicePath).c_str(), O_RDONLY | O_CLOEXEC));
}

/// Reads up to `Size` bytes, ended by the first zero byte. Null when nothing came.
template <std::size_t Size>
std::optional<std::string> Read(const base::UniqueFd& file) {
    char buffer[Size + 1];
    const ssize_t count = read(file.Get(), buffer, Size);
    if (count <= 0) {
        return std::nullopt;
    }
    buffer[count] = '\0';
    return buffer;
}

}  // namespace

TCKpiManager::TCKpiManager() {
    ZOL_LOG(LOG_ERROR, "TCKpiManager()");
}

void TCKpiManager::GetAllInformation() {
    m_GetHWDuid();
    m_GetTgid();
    m_GetLcid();
    m_GetEvid();
}

std::string TCKpiManager::Get(int index) const {
    if (index < 0 || index >= KPI_COUNT) {
        return kUnknown;
    }
    return m_information[static_cast<std::size_t>(index)];
}

bool TCKpiManager::SendKPI(const char* type, const char* category, const char* eventId,
                           const std::string& description) {
    const int result =
        KPILogFramework::CLogger::GetInstance().AddEventLogSync(type, category, eventId, description);
    if (result != KPILogFramework::CLogger::RESULT_SUCCESS) {
        ZOL_LOG(LOG_ERROR, "ERR(%d): could not send event log", result);
        return false;
    }
    ZOL_LOG(LOG_ERROR, "sent 19_errdata KPI");
    return true;
}

void TCKpiManager::m_GetHWDuid() {
    const zol::VconfString value = zol::GetVconfString(kHwduidKey);
    if (value == nullptr) {
        ZOL_LOG(LOG_ERROR, "vconf_get_str(%s) failed", kHwduidKey);
        m_information[KPI_HWDUID] = kUnknown;
        return;
    }
    ZOL_LOG(LOG_INFO, "vconf_get_str(%s) success", kHwduidKey);
    m_information[KPI_HWDUID] = std::string(value.get()).substr(0, kHwduidLength);
}

void TCKpiManager::m_GetTgid() {
    m_information[KPI_TGID] = kUnknown;
    base::UniqueFd file;
    for (int attempt = 1; attempt <= kTgidAttempts; ++attempt) {
        if (!file) {
            file = OpenForReading(ZOL_PATH_UNIQUE_ID);
        }
        if (!file) {
            ZOL_LOG(LOG_ERROR, "file open failed. again for tgid value (%d)", attempt);
        } else if (std::optional<std::string> text = Read<kTgidLength>(file)) {
            m_information[KPI_TGID] = std::move(*text);
            return;
        } else {
            ZOL_LOG(LOG_ERROR, "file read failed. try again for tgid value (%d)", attempt);
        }
        CCTime::USleep(kRetryPauseUs);
    }
}

void TCKpiManager::m_GetLcid() {
    m_information[KPI_LCID] = kUnknown;
    const base::UniqueFd file = OpenForReading(ZOL_PATH_LIFE_CYCLE_ID);
    if (!file) {
        ZOL_LOG(LOG_ERROR, "file open failed");
    } else if (std::optional<std::string> text = Read<kLcidLength>(file)) {
        m_information[KPI_LCID] = std::move(*text);
    } else {
        ZOL_LOG(LOG_ERROR, "file read failed\n");
    }
}

void TCKpiManager::m_GetEvid() {
    m_information[KPI_EVID] = kUnknown;
    platform_time_t now{};
    if (platform_clock_realtime(&now) != 0) {
        ZOL_LOG(LOG_ERROR, "gettimeofday() fail");
        return;
    }
    // Not as a long, which holds no moment after 2038 on the device.
    char text[11];
    std::snprintf(text, sizeof(text), "%" PRId64, now.seconds);
    m_information[KPI_EVID] = text;
}

void TCKpiManager::m_GetChipId() {
    m_information[KPI_CHIP_ID] = kUnknown;
    const base::FilePtr file(std::fopen(DevicePath(ZOL_PATH_CHIP_ID).c_str(), "rte"));
    if (file == nullptr) {
        return;
    }
    unsigned words[4] = {};
    if (std::fscanf(file.get(), "0x%x 0x%x 0x%x 0x%x\n", &words[0], &words[1], &words[2], &words[3]) < 1) {
        return;
    }
    char text[36];
    std::snprintf(text, sizeof(text), "%08X_%08X_%08X_%08X", words[0], words[1], words[2], words[3]);
    m_information[KPI_CHIP_ID] = text;
}

void TCKpiManager::m_IsReleaseMode() {
    m_information[KPI_RELEASE_MODE] = kUnknown;
    if (!g_releaseModeIsUnread.exchange(false)) {
        return;
    }
    struct stat status {};
    const bool isRelease = stat(DevicePath(ZOL_PATH_RELEASE_MARKER).c_str(), &status) == 0;
    m_information[KPI_RELEASE_MODE] = isRelease ? "REL" : "DEV";
}

void TCKpiManager::m_IsShopMode() {
    int isShop = 0;
    runtime_info_get_value_int(RUNTIME_INFO_SHOP_MODE, &isShop);
    if (isShop == 0) {
        m_information[KPI_SHOP_MODE] = "n";
    } else if (isShop == 1) {
        m_information[KPI_SHOP_MODE] = "y";
    }
}

std::string TCKpiManager::m_IntToString(int number) const {
    return std::to_string(number);
}
