#include "ReportFolder.h"

#include <fcntl.h>
#include <json/json.h>

#include <cerrno>
#include <cstddef>
#include <mutex>

#include "TSFileSystem.h"
#include "ZOLKpiManager.h"
#include "base/atomic_file.h"
#include "base/json_text.h"
#include "base/system_error.h"
#include "base/unique_fd.h"
#include "device_path.h"
#include "device_paths.h"

namespace zol {
namespace {

constexpr std::size_t kPathLength = 127;
constexpr mode_t kHeaderMode = 0644;

/// Only a file may be replaced, or nothing.
std::error_code CheckPlace(const std::string& path) {
    const base::UniqueFd there(open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return base::ErrorUnless(there || errno == ENOENT);
}

}  // namespace

ReportFolder::ReportFolder(const std::string& tgid, const std::string& evid)
    : m_path((std::string(ZOL_PATH_REPORT_ROOT) + "/" + tgid + "_" + evid).substr(0, kPathLength)) {}

bool ReportFolder::Make() const {
    return TSFileSystem::MakeDir(m_path, true);
}

ReportFolder::HeaderErrors ReportFolder::WriteHeader(const TCKpiManager& identifiers) const {
    Json::Value header;
    header["idtype"] = "HWDUID";
    header["id"] = identifiers.Get(KPI_HWDUID);
    header["category"] = "ZOL";
    header["tgid"] = identifiers.Get(KPI_TGID);
    header["lcid"] = identifiers.Get(KPI_LCID);
    header["evid"] = identifiers.Get(KPI_EVID);
    header["Content-Type"] = "multipart/form-data";
    const std::string text = base::JsonText(Json::StreamWriterBuilder(), header);

    // Two sets of tasks may report in the same second: they share the folder and the temporary file's name.
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    const std::string path = DevicePath((m_path + "/header.json").substr(0, kPathLength));
    base::ReplacementFile file(path);
    std::error_code error = CheckPlace(path);
    if (!error) {
        error = file.Open(kHeaderMode);
    }
    if (error) {
        return {error, {}};
    }
    // A file system without modes refuses, and needs none.
    static_cast<void>(file.SetMode(kHeaderMode));
    return {{}, file.PutInPlace(text)};
}

}  // namespace zol
