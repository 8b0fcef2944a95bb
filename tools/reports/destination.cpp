#include "destination.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "base/folders.h"
#include "base/system_error.h"
#include "copy.h"
#include "text.h"

namespace reports {
namespace {

constexpr const char* kStaging = ".incoming";
constexpr mode_t kStagingMode = 0700;
constexpr std::size_t kIdInName = 12;
constexpr int kAsFolder = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

/// What somebody else wrote may not be on the disk yet.
bool SyncFiles(int folder, const Report& report) {
    for (const File& file : report.files) {
        const base::UniqueFd opened(OpenFileAt(folder, file.name));
        if (!opened || (fsync(opened.Get()) != 0 && errno != EINVAL)) {
            return false;
        }
    }
    return true;
}

}  // namespace

Destination::~Destination() {
    if (m_staging) {
        unlinkat(m_fd.Get(), kStaging, AT_REMOVEDIR);
    }
}

Outcome Destination::Open(const std::string& path) {
    m_path = path;
    m_fd.Reset(open(path.c_str(), kAsFolder));
    if (!m_fd) {
        return {Problem::Unwritable, tools::OneLine(path), base::LastError()};
    }
    if (flock(m_fd.Get(), LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK
                   ? Outcome(Problem::Busy, "another collector works on " + tools::OneLine(path))
                   : Outcome(Problem::Unwritable, tools::OneLine(path), base::LastError());
    }
    const std::error_code removed = base::RemoveTree(m_fd.Get(), kStaging);
    if (removed && removed != std::errc::no_such_file_or_directory) {
        return {Problem::Unwritable, tools::OneLine(path) + "/" + kStaging, removed};
    }
    if (mkdirat(m_fd.Get(), kStaging, kStagingMode) == 0) {
        m_staging.Reset(openat(m_fd.Get(), kStaging, kAsFolder | O_NOFOLLOW));
    }
    return m_staging ? Outcome() : Outcome(Problem::Unwritable, tools::OneLine(path), base::LastError());
}

bool Destination::IsThere(const std::string& place, const Report& report, const std::string& id) const {
    const base::UniqueFd folder(openat(m_fd.Get(), place.c_str(), kAsFolder | O_NOFOLLOW));
    Report there;
    std::string itsId;
    return folder && !Describe(folder.Get(), report.name, there) && !Identify(folder.Get(), there, itsId) &&
           itsId == id;
}

Outcome Destination::FindPlace(const Report& report, const std::string& id, std::string& place,
                               bool& isThere) const {
    for (const std::string& name : {report.name, report.name + "." + id.substr(0, kIdInName)}) {
        place = name;
        isThere = IsThere(name, report, id);
        if (isThere || faccessat(m_fd.Get(), name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0) {
            return {};
        }
    }
    return {Problem::Unwritable, tools::OneLine(m_path + "/" + place) + " is in the way"};
}

Outcome Destination::Copy(int folder, const Report& report, const std::string& place) const {
    Outcome outcome = CopyReport(folder, report, What::All, m_staging.Get(), place);
    if (!outcome && renameat(m_staging.Get(), place.c_str(), m_fd.Get(), place.c_str()) != 0) {
        outcome = {Problem::Unwritable, tools::OneLine(m_path + "/" + place), base::LastError()};
    }
    if (outcome) {
        // The next one that opens the folder clears it.
        static_cast<void>(base::RemoveTree(m_staging.Get(), place.c_str()));
    }
    return outcome;
}

Outcome Destination::Take(const ReportRoot& root, const std::string& name, Taken& taken) {
    base::UniqueFd folder;
    Report report;
    std::string id;
    std::string place;
    bool isThere = false;
    Outcome outcome = root.OpenReport(name, folder);
    if (!outcome) {
        outcome = Describe(folder.Get(), name, report);
    }
    if (!outcome) {
        outcome = Identify(folder.Get(), report, id);
    }
    if (!outcome) {
        outcome = FindPlace(report, id, place, isThere);
    }
    if (outcome) {
        return outcome;
    }
    taken = {m_path + "/" + place, !isThere, false};
    if (isThere) {
        return {};
    }
    // Fails where the report root is on another file system, or belongs to somebody else.
    taken.isMoved = IsSettled(report) && SyncFiles(folder.Get(), report) && fsync(folder.Get()) == 0 &&
                    renameat(root.Fd(), name.c_str(), m_fd.Get(), place.c_str()) == 0;
    if (!taken.isMoved) {
        outcome = Copy(folder.Get(), report, place);
    }
    if (!outcome && fsync(m_fd.Get()) != 0 && errno != EINVAL) {
        outcome = {Problem::Unwritable, tools::OneLine(m_path), base::LastError()};
    }
    return outcome;
}

}  // namespace reports
