#include "report.h"

#include <fcntl.h>
#include <glib.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>

#include "base/folders.h"
#include "base/handles.h"
#include "base/system_error.h"
#include "base/unique_fd.h"
#include "platform_clock.h"
#include "text.h"

namespace reports {
namespace {

constexpr std::size_t kMaxHeaderBytes = 65536;
constexpr int kMaxDepth = 8;
constexpr std::int64_t kSettledSeconds = 10;
constexpr std::size_t kBlock = 16384;

using ChecksumPtr = std::unique_ptr<GChecksum, base::FreeWith<g_checksum_free>>;

Outcome Unreadable(const std::string& name) {
    return {Problem::Unreadable, tools::OneLine(name), base::LastError()};
}

/// Adds what lies in a folder. `below` is its name from the report on, empty or with a slash at the end.
Outcome AddFiles(int folder, const std::string& below, int depth, Report& report) {
    const std::string where = report.name + "/" + below;
    std::vector<std::string> names;
    if (const std::error_code error = base::ListFolder(folder, names)) {
        return {Problem::Unreadable, tools::OneLine(where), error};
    }
    for (const std::string& name : names) {
        struct stat status {};
        if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return Unreadable(where + name);
        }
        if (S_ISREG(status.st_mode)) {
            report.files.push_back({below + name, static_cast<std::uint64_t>(status.st_size)});
            report.bytes += report.files.back().bytes;
        } else if (S_ISDIR(status.st_mode) && depth < kMaxDepth) {
            const base::UniqueFd inner(
                openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!inner) {
                return Unreadable(where + name);
            }
            if (Outcome outcome = AddFiles(inner.Get(), below + name + "/", depth + 1, report)) {
                return outcome;
            }
        } else {
            ++report.leftOut;
        }
    }
    return {};
}

/// Null for what is no object of texts, or too large for one.
std::optional<Header> ReadHeader(int folder) {
    const base::UniqueFd file(OpenFileAt(folder, kHeaderName));
    std::string text(kMaxHeaderBytes, '\0');
    const ssize_t length = file ? read(file.Get(), text.data(), text.size()) : -1;
    if (length <= 0) {
        return std::nullopt;
    }
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = 8;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    try {
        if (!reader->parse(text.data(), text.data() + length, &value, nullptr) || !value.isObject()) {
            return std::nullopt;
        }
    } catch (const Json::Exception&) {  // nested deeper than any header
        return std::nullopt;
    }
    Header header;
    for (const std::string& member : value.getMemberNames()) {
        if (value[member].isString()) {
            header[member] = value[member].asString();
        }
    }
    return header;
}

void Add(GChecksum* sum, const void* data, std::size_t size) {
    g_checksum_update(sum, static_cast<const guchar*>(data), static_cast<gssize>(size));
}

/// A name and its end, which no name holds.
void AddName(GChecksum* sum, const std::string& name) {
    Add(sum, name.c_str(), name.size() + 1);
}

}  // namespace

std::int64_t Report::Time() const {
    const std::string* evid = Field("evid");
    std::int64_t seconds = 0;
    if (evid != nullptr &&
        std::from_chars(evid->data(), evid->data() + evid->size(), seconds).ec == std::errc()) {
        return seconds;
    }
    return changed.tv_sec;
}

const std::string* Report::Field(const std::string& member) const {
    if (!header) {
        return nullptr;
    }
    const auto found = header->find(member);
    return found != header->end() ? &found->second : nullptr;
}

Outcome Describe(int folder, const std::string& name, Report& report) {
    report = Report();
    report.name = name;
    struct stat status {};
    if (fstat(folder, &status) != 0) {
        return Unreadable(name);
    }
    report.changed = status.st_mtim;
    if (Outcome outcome = AddFiles(folder, "", 0, report)) {
        return outcome;
    }
    std::sort(report.files.begin(), report.files.end(),
              [](const File& one, const File& other) { return one.name < other.name; });
    report.header = ReadHeader(folder);
    return {};
}

Outcome Identify(int folder, const Report& report, std::string& id) {
    const ChecksumPtr sum(g_checksum_new(G_CHECKSUM_SHA256));
    AddName(sum.get(), report.name);
    std::array<char, kBlock> block;
    for (const File& entry : report.files) {
        AddName(sum.get(), entry.name);
        const base::UniqueFd file(OpenFileAt(folder, entry.name));
        std::uint64_t total = 0;
        ssize_t length = -1;
        while (file && (length = read(file.Get(), block.data(), block.size())) > 0) {
            Add(sum.get(), block.data(), static_cast<std::size_t>(length));
            total += static_cast<std::uint64_t>(length);
        }
        if (length < 0) {
            return Unreadable(report.name + "/" + entry.name);
        }
        AddName(sum.get(), std::to_string(total));
    }
    id = g_checksum_get_string(sum.get());
    return {};
}

bool IsSettled(const Report& report) {
    platform_time_t now{};
    if (platform_clock_realtime(&now) != 0) {
        return false;
    }
    return now.seconds - report.changed.tv_sec >= kSettledSeconds || report.changed.tv_sec > now.seconds;
}

int OpenFileAt(int folder, const std::string& name) {
    return openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

}  // namespace reports
