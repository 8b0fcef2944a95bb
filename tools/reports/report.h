#pragma once
/// What a report says about itself.
#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "outcome.h"

namespace reports {

constexpr const char* kHeaderName = "header.json";

/// The texts of a header.json by their names.
using Header = std::map<std::string, std::string>;

struct File {
    std::string name;  ///< with the folders that it lies in, from the report on
    std::uint64_t bytes = 0;
};

struct Report {
    std::string name;
    std::optional<Header> header;  ///< none: it is missing (the disk was full) or no such header
    std::vector<File> files;       ///< by name
    std::uint64_t bytes = 0;       ///< of all files
    timespec changed{};            ///< the folder, the last time; since 1970
    std::size_t leftOut = 0;       ///< links and whatever else is no file

    /// When it was made: what its header says, else the folder's last change. Seconds since 1970.
    [[nodiscard]] std::int64_t Time() const;
    /// A member of the header; null without one.
    [[nodiscard]] const std::string* Field(const std::string& member) const;
};

/// Reads what lies in an opened report.
[[nodiscard]] Outcome Describe(int folder, const std::string& name, Report& report);

/// An id that stays the same wherever the report lies: SHA-256 over its name and, by name, its files, in hex.
[[nodiscard]] Outcome Identify(int folder, const Report& report, std::string& id);

/// Whether nothing more is to come into a report. The daemon adds to a folder within the second that its name
/// says; this leaves it ten, by the wall clock. One that was set back meanwhile does no harm.
[[nodiscard]] bool IsSettled(const Report& report);

/// Opens a file of a report; neither follows a link nor waits for what is no file. -1 with errno.
[[nodiscard]] int OpenFileAt(int folder, const std::string& name);

}  // namespace reports
