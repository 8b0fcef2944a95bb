#include "ReportFolder.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "TSFileSystem.h"
#include "ZOLKpiManager.h"
#include "base/unique_fd.h"
#include "device_path.h"
#include "device_paths.h"

namespace zol {
namespace {

constexpr std::size_t kPathLength = 127;
constexpr mode_t kHeaderMode = 0644;

}  // namespace

ReportFolder::ReportFolder(const std::string& tgid, const std::string& evid)
    : m_path((std::string(ZOL_PATH_REPORT_ROOT) + "/" + tgid + "_" + evid).substr(0, kPathLength)) {}

bool ReportFolder::Make() const {
    return TSFileSystem::MakeDir(m_path, true);
}

base::FilePtr ReportFolder::OpenHeader() const {
    const std::string path = DevicePath((m_path + "/header.json").substr(0, kPathLength));
    base::UniqueFd descriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kHeaderMode));
    if (!descriptor) {
        return nullptr;
    }
    // Against the umask. A file system without modes refuses, and needs none.
    static_cast<void>(fchmod(descriptor.Get(), kHeaderMode));
    return base::OpenStream(std::move(descriptor), "w");
}

std::error_code ReportFolder::WriteHeader(base::FilePtr file, const TCKpiManager& identifiers) {
    Json::Value header;
    header["idtype"] = "HWDUID";
    header["id"] = identifiers.Get(KPI_HWDUID);
    header["category"] = "ZOL";
    header["tgid"] = identifiers.Get(KPI_TGID);
    header["lcid"] = identifiers.Get(KPI_LCID);
    header["evid"] = identifiers.Get(KPI_EVID);
    header["Content-Type"] = "multipart/form-data";
    const std::string text = Json::writeString(Json::StreamWriterBuilder(), header);

    // Over the old content, which is cut only afterwards: a reader never finds an identical file empty.
    const bool isWritten = std::fputs(text.c_str(), file.get()) >= 0 && std::fflush(file.get()) == 0 &&
                           ftruncate(fileno(file.get()), static_cast<off_t>(text.size())) == 0 &&
                           std::fclose(file.release()) == 0;
    return isWritten ? std::error_code() : std::error_code(errno, std::generic_category());
}

}  // namespace zol
