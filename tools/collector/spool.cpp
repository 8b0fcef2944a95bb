#include "spool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <set>
#include <utility>

#include "base/atomic_file.h"
#include "base/folders.h"
#include "base/system_error.h"
#include "base/unique_fd.h"
#include "report.h"
#include "text.h"

namespace collector {
namespace {

using reports::Outcome;
using reports::Problem;
using reports::Report;

constexpr const char* kReports = "reports";
constexpr const char* kRefused = "refused";
constexpr const char* kTaken = "taken";
constexpr const char* kCounts = "counts.json";
constexpr const char* kHeaderOnly = "header_only";  ///< a file in the folder of an entry without its body
constexpr const char* kNewEntry = "entry";          ///< in the staging folder

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr std::uint64_t kBlock = 4096;
constexpr std::uint64_t kFoldersOfEntry = 2;
constexpr int kAsFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

const char* FolderOf(State state) {
    return state == State::Waiting ? kReports : kRefused;
}

Outcome Unwritable(const std::string& where) {
    return {Problem::Unwritable, tools::OneLine(where), base::LastError()};
}

Outcome Unwritable(const std::string& where, const std::error_code& error) {
    return error ? Outcome(Problem::Unwritable, tools::OneLine(where), error) : Outcome();
}

/// What the file system takes for an entry, folders included.
std::uint64_t SizeOf(const Report& report, reports::What what) {
    std::uint64_t blocks = kFoldersOfEntry;
    for (const reports::File& file : report.files) {
        if (what == reports::What::All || file.name == reports::kHeaderName) {
            blocks += (file.bytes + kBlock - 1) / kBlock;
        }
    }
    return blocks * kBlock;
}

/// The sequence number that the name of an entry begins with; null for another name.
std::optional<std::uint64_t> SequenceOf(const std::string& name) {
    std::uint64_t sequence = 0;
    const char* const end = name.data() + name.size();
    const auto [stop, error] = std::from_chars(name.data(), end, sequence);
    return error == std::errc() && stop != end && *stop == '-' ? std::optional(sequence) : std::nullopt;
}

std::string NameOf(std::uint64_t sequence, const std::string& id) {
    std::array<char, 32> number{};
    std::snprintf(number.data(), number.size(), "%012llu", static_cast<unsigned long long>(sequence));
    return std::string(number.data()) + "-" + id;
}

/// What is remembered of a report: its id, and behind a blank its folder's last change in nanoseconds.
std::string MarkOf(const std::string& id, const timespec& changed) {
    constexpr std::int64_t kNsPerSecond = 1000000000;
    return id + " " + std::to_string(std::int64_t{changed.tv_sec} * kNsPerSecond + changed.tv_nsec);
}

std::string ReadText(const std::string& file) {
    std::string text;
    std::getline(std::ifstream(file), text, '\0');
    return text;
}

/// Opens the folder of the report in that of an entry.
Outcome OpenReportIn(const std::string& path, base::UniqueFd& folder, std::string& name) {
    const base::UniqueFd entry(open(path.c_str(), kAsFolder));
    std::vector<std::string> names;
    const std::error_code error = entry ? base::ListFolder(entry.Get(), names) : base::LastError();
    for (std::string& each : names) {
        folder.Reset(openat(entry.Get(), each.c_str(), kAsFolder));
        if (folder) {
            name = std::move(each);
            return {};
        }
        if (errno != ENOTDIR && errno != ELOOP && errno != ENOENT) {
            return {Problem::Unreadable, tools::OneLine(path), base::LastError()};
        }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        return {Problem::Unreadable, tools::OneLine(path), error};
    }
    return {Problem::Missing, tools::OneLine(path) + " holds no report"};
}

}  // namespace

Spool::Spool(const Limits& limits, std::function<void(const std::string&)> say)
    : m_limits(limits), m_say(std::move(say)) {}

Outcome Spool::OpenFolders() {
    if (mkdir(m_path.c_str(), kFolderMode) != 0 && errno != EEXIST) {
        return Unwritable(m_path);
    }
    if (Outcome outcome = m_folder.Open(m_path)) {
        return outcome;
    }
    for (const char* name : {kReports, kRefused, kTaken}) {
        if (mkdirat(m_folder.Fd(), name, kFolderMode) != 0 && errno != EEXIST) {
            return Unwritable(m_path + "/" + name);
        }
    }
    return Unwritable(m_path, base::SyncFolder(m_path));
}

Outcome Spool::Open(const std::string& path) {
    m_path = path;
    std::vector<Entry> entries;
    Outcome outcome = OpenFolders();
    if (!outcome) {
        outcome = ListSpool(m_path, entries);
    }
    if (outcome) {
        return outcome;
    }
    for (Entry& entry : entries) {
        // Cut off while its body was removed: it still has some.
        if (!entry.isWhole && entry.bodyBytes > 0 && !DropBody(entry)) {
            entry.bytes -= std::exchange(entry.bodyBytes, 0);
        }
        m_bytes += entry.bytes;
        m_entries.emplace(SequenceOf(entry.name).value_or(0), std::move(entry));
    }
    m_counts = SpoolCounts::Load(m_path + "/" + kCounts);
    return {};
}

Outcome Spool::Take(const reports::ReportRoot& root, const std::string& name, bool& isNew) {
    base::UniqueFd folder;
    Report report;
    std::string id;
    Outcome outcome = root.OpenReport(name, folder);
    if (!outcome) {
        outcome = Describe(folder.Get(), name, report);
    }
    if (!outcome) {
        outcome = Identify(folder.Get(), report, id);
    }
    if (outcome) {
        return outcome;
    }
    const std::string mark = ReadText(MarkFileOf(name));
    isNew = !Has(id) && mark.substr(0, mark.find(' ')) != id;
    if (isNew) {
        if ((outcome = Store(folder.Get(), report, id))) {
            static_cast<void>(base::RemoveTree(m_folder.StagingFd(), kNewEntry));
            isNew = Has(id);
            return outcome;
        }
        Count(&SpoolCounts::taken);
        if (report.leftOut > 0) {
            m_say(tools::OneLine(reports::PathOf(name)) + ": " + std::to_string(report.leftOut) +
                  " links and special files are left out");
        }
    }
    return Remember(report, id);
}

Outcome Spool::Stage(int folder, const Report& report, reports::What what) const {
    if (mkdirat(m_folder.StagingFd(), kNewEntry, kFolderMode) != 0) {
        return Unwritable(m_path);
    }
    const base::UniqueFd staged(openat(m_folder.StagingFd(), kNewEntry, kAsFolder));
    if (!staged) {
        return Unwritable(m_path);
    }
    if (what == reports::What::HeaderOnly) {
        const base::UniqueFd mark(
            openat(staged.Get(), kHeaderOnly, O_WRONLY | O_CREAT | O_CLOEXEC, kFileMode));
        if (!mark) {
            return Unwritable(m_path);
        }
    }
    if (Outcome outcome = CopyReport(folder, report, what, staged.Get(), report.name)) {
        return outcome;
    }
    return fsync(staged.Get()) == 0 ? Outcome() : Unwritable(m_path);
}

Outcome Spool::Store(int folder, const Report& report, const std::string& id) {
    const bool isTooLarge = SizeOf(report, reports::What::All) > m_limits.bytes;
    const reports::What what = isTooLarge ? reports::What::HeaderOnly : reports::What::All;
    Entry entry;
    entry.bytes = SizeOf(report, what);
    entry.bodyBytes = entry.bytes - SizeOf(report, reports::What::HeaderOnly);
    entry.isWhole = !isTooLarge;
    Outcome outcome = MakeRoom(entry.bytes);
    if (!outcome) {
        outcome = Stage(folder, report, what);
    }
    if (outcome) {
        return outcome;
    }
    const std::uint64_t sequence = m_entries.empty() ? 1 : m_entries.rbegin()->first + 1;
    entry.name = NameOf(sequence, id);
    const std::string place = std::string(kReports) + "/" + entry.name;
    if (renameat(m_folder.StagingFd(), kNewEntry, m_folder.Fd(), place.c_str()) != 0) {
        return Unwritable(m_path);
    }
    if (isTooLarge) {
        m_say(tools::OneLine(reports::PathOf(report.name)) +
              " is larger than the spool, only its header is kept");
        Count(&SpoolCounts::droppedBodies);
    }
    m_bytes += entry.bytes;
    m_entries.emplace(sequence, std::move(entry));
    return Unwritable(m_path, base::SyncFolder(m_path + "/" + kReports));
}

std::string Spool::MarkFileOf(const std::string& name) const {
    return m_path + "/" + kTaken + "/" + name;
}

Outcome Spool::Remember(const Report& report, const std::string& id) const {
    const std::string file = MarkFileOf(report.name);
    const std::string mark = MarkOf(id, report.changed);
    return ReadText(file) == mark ? Outcome() : Unwritable(file, base::ReplaceFile(file, mark, kFileMode));
}

bool Spool::WasTaken(const reports::ReportRoot& root, const std::string& name) const {
    const std::string mark = ReadText(MarkFileOf(name));
    struct stat now {};
    return fstatat(root.Fd(), name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
           mark == MarkOf(mark.substr(0, mark.find(' ')), now.st_mtim);
}

void Spool::ForgetAllBut(const std::vector<std::string>& names) {
    const std::set<std::string> kept(names.begin(), names.end());
    const base::UniqueFd folder(openat(m_folder.Fd(), kTaken, kAsFolder));
    std::vector<std::string> remembered;
    if (!folder || base::ListFolder(folder.Get(), remembered)) {
        return;  // they are forgotten the next time
    }
    for (const std::string& name : remembered) {
        if (kept.count(name) == 0) {
            unlinkat(folder.Get(), name.c_str(), 0);
        }
    }
}

bool Spool::Has(const std::string& id) const {
    return std::any_of(m_entries.begin(), m_entries.end(),
                       [&](const auto& each) { return each.second.Id() == id; });
}

const Entry* Spool::First(const std::set<std::string>& without) {
    for (auto each = m_entries.begin(); each != m_entries.end();) {
        if (each->second.state != State::Waiting || without.count(each->second.name) > 0) {
            ++each;
        } else if (IsTakenOut(each->second)) {
            each = Forget(each);
        } else {
            return &each->second;
        }
    }
    return nullptr;
}

bool Spool::IsTakenOut(const Entry& entry) {
    base::UniqueFd folder;
    std::string name;
    if (OpenReportIn(PathOf(entry), folder, name).problem != Problem::Missing) {
        return false;
    }
    const bool isLeft = access(PathOf(entry).c_str(), F_OK) == 0;
    if (isLeft && RemoveFolder(entry)) {
        return false;
    }
    if (isLeft) {
        m_say("its report was taken out, the rest is removed: " + entry.name);
    }
    return true;
}

std::string Spool::PathOf(const Entry& entry) const {
    return m_path + "/" + FolderOf(entry.state) + "/" + entry.name;
}

Spool::Entries::iterator Spool::Find(const Entry& entry) {
    const auto found = m_entries.find(SequenceOf(entry.name).value_or(0));
    // The numbers begin anew in an empty spool: another report may have this one's.
    return found != m_entries.end() && found->second.name == entry.name ? found : m_entries.end();
}

Spool::Entries::iterator Spool::Forget(Entries::iterator entry) {
    m_bytes -= entry->second.bytes;
    return m_entries.erase(entry);
}

void Spool::ForgetRemoved() {
    for (auto each = m_entries.begin(); each != m_entries.end();) {
        each = IsTakenOut(each->second) ? Forget(each) : std::next(each);
    }
}

Outcome Spool::Remove(const Entry& entry) {
    const auto found = Find(entry);
    if (found != m_entries.end()) {
        if (Outcome outcome = RemoveFolder(found->second)) {
            return outcome;
        }
        Forget(found);
    }
    Count(&SpoolCounts::uploaded);
    return {};
}

Outcome Spool::Refuse(const Entry& entry) {
    const auto found = Find(entry);
    if (found == m_entries.end()) {
        return {};
    }
    Entry refused = found->second;
    refused.state = State::Refused;
    if (rename(PathOf(found->second).c_str(), PathOf(refused).c_str()) != 0) {
        return Unwritable(PathOf(refused));
    }
    found->second.state = State::Refused;
    Count(&SpoolCounts::refused);
    return Unwritable(m_path, base::SyncFolder(m_path + "/" + kRefused));
}

Outcome Spool::MakeRoom(std::uint64_t bytes) {
    if (m_bytes + bytes > m_limits.bytes || m_entries.size() >= m_limits.reports) {
        ForgetRemoved();
    }
    for (auto each = m_entries.begin(); each != m_entries.end() && m_bytes + bytes > m_limits.bytes;) {
        Outcome outcome = each->second.bodyBytes > 0 ? TakeBodyAway(each->second) : Outcome();
        if (outcome.problem != Problem::Unreadable) {
            ++each;
        } else {
            outcome = DropReport(each++);  // or it would hold up all that come
        }
        if (outcome) {
            return outcome;
        }
    }
    while (!m_entries.empty() && (m_bytes + bytes > m_limits.bytes || m_entries.size() >= m_limits.reports)) {
        if (Outcome outcome = DropReport(m_entries.begin())) {
            return outcome;
        }
    }
    return {};
}

Outcome Spool::TakeBodyAway(Entry& entry) {
    if (Outcome outcome = DropBody(entry)) {
        return outcome;
    }
    m_bytes -= entry.bodyBytes;
    entry.bytes -= std::exchange(entry.bodyBytes, 0);
    m_say("no room: only the header of the oldest report is kept, " + entry.name);
    Count(&SpoolCounts::droppedBodies);
    return {};
}

Outcome Spool::DropReport(Entries::iterator entry) {
    if (Outcome outcome = RemoveFolder(entry->second)) {
        return outcome;
    }
    m_say("no room: the oldest report is dropped, " + entry->second.name);
    Forget(entry);
    Count(&SpoolCounts::droppedReports);
    return {};
}

Outcome Spool::DropBody(Entry& entry) {
    const std::string path = PathOf(entry);
    base::UniqueFd folder;
    Report report;
    std::vector<std::string> names;
    if (Outcome outcome = OpenEntry(path, folder, report)) {
        return outcome;
    }
    std::error_code error = base::ListFolder(folder.Get(), names);
    names.erase(std::remove(names.begin(), names.end(), reports::kHeaderName), names.end());
    if (!error) {
        // First: after a power cut it is a report without its body, not one with a part of it.
        error = base::ReplaceFile(path + "/" + kHeaderOnly, "", kFileMode);
        entry.isWhole = false;
    }
    for (auto each = names.begin(); !error && each != names.end(); ++each) {
        if (unlinkat(folder.Get(), each->c_str(), 0) != 0) {
            error = base::RemoveTree(folder.Get(), each->c_str());
        }
    }
    return Unwritable(path, error);
}

Outcome Spool::RemoveFolder(const Entry& entry) {
    // Out of its place in one step, so that no part of it is taken for a report.
    const std::string from = std::string(FolderOf(entry.state)) + "/" + entry.name;
    if (renameat(m_folder.Fd(), from.c_str(), m_folder.StagingFd(), entry.name.c_str()) != 0) {
        return Unwritable(PathOf(entry));
    }
    // What cannot be removed now goes at the next start.
    static_cast<void>(base::RemoveTree(m_folder.StagingFd(), entry.name.c_str()));
    return Unwritable(m_path, base::SyncFolder(m_path + "/" + FolderOf(entry.state)));
}

void Spool::Count(std::int64_t SpoolCounts::*count) {
    ++(m_counts.*count);
    // The next change saves it, too.
    static_cast<void>(m_counts.Save(m_path + "/" + kCounts));
}

Outcome ListSpool(const std::string& path, std::vector<Entry>& entries) {
    for (const State state : {State::Waiting, State::Refused}) {
        const std::string folder = path + "/" + FolderOf(state);
        const base::UniqueFd opened(open(folder.c_str(), kAsFolder));
        std::vector<std::string> names;
        if (const std::error_code error =
                opened ? base::ListFolder(opened.Get(), names) : base::LastError()) {
            return {Problem::Unreadable, tools::OneLine(folder), error};
        }
        for (std::string& name : names) {
            Report report;
            base::UniqueFd ignored;
            const std::string entry = folder + ("/" + name);
            static_cast<void>(OpenEntry(entry, ignored, report));
            // One that goes while it is looked at is none.
            if (SequenceOf(name) && access(entry.c_str(), F_OK) == 0) {
                const bool isWhole = IsWhole(entry);
                const std::uint64_t bytes = SizeOf(report, reports::What::All);
                const std::uint64_t headerBytes = SizeOf(report, reports::What::HeaderOnly);
                entries.push_back({std::move(name), state, bytes, bytes - headerBytes, isWhole});
            }
        }
    }
    std::sort(entries.begin(), entries.end(),
              [](const Entry& one, const Entry& other) { return one.name < other.name; });
    return {};
}

Outcome OpenEntry(const std::string& path, base::UniqueFd& folder, Report& report) {
    std::string name;
    const Outcome outcome = OpenReportIn(path, folder, name);
    return outcome ? outcome : Describe(folder.Get(), name, report);
}

std::string IdOf(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    return name.substr(name.find('-') + 1);
}

bool IsWhole(const std::string& path) {
    return access((path + "/" + kHeaderOnly).c_str(), F_OK) != 0;
}

std::string Entry::Id() const {
    return IdOf(name);
}

}  // namespace collector
