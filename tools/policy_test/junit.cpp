#include "junit.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iomanip>
#include <map>
#include <sstream>

#include "base/atomic_file.h"
#include "base/glib_handles.h"
#include "base/system_error.h"
#include "base/unique_fd.h"

namespace policytest {
namespace {

constexpr mode_t kFileMode = 0666;  // less the umask

/// For an attribute or for text: valid UTF-8 of characters that XML allows.
std::string Escaped(const std::string& text) {
    const base::GStringPtr valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    std::string escaped;
    for (const char* at = valid.get(); *at != '\0'; at = g_utf8_next_char(at)) {
        const gunichar character = g_utf8_get_char(at);
        const bool isControl = character < 0x20 && character != '\n' && character != '\t';
        if (isControl || character == 0xFFFE || character == 0xFFFF) {
            escaped += "\xEF\xBF\xBD";  // the replacement character
        } else if (character == '&') {
            escaped += "&amp;";
        } else if (character == '<') {
            escaped += "&lt;";
        } else if (character == '>') {
            escaped += "&gt;";
        } else if (character == '"') {
            escaped += "&quot;";
        } else if (character == '\n') {
            escaped += "&#10;";
        } else {
            escaped.append(at, static_cast<std::size_t>(g_utf8_next_char(at) - at));
        }
    }
    return escaped;
}

std::string Attribute(const std::string& name, const std::string& value) {
    return " " + name + "=\"" + Escaped(value) + "\"";
}

std::string Seconds(std::chrono::duration<double> time) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(3) << time.count();
    return text.str();
}

/// Numbers of results, as attributes.
std::string Counts(const std::vector<const Result*>& results) {
    std::chrono::duration<double> took(0);
    for (const Result* result : results) {
        took += result->took;
    }
    const auto count = [&results](Result::Outcome outcome) {
        return std::to_string(std::count_if(results.begin(), results.end(), [outcome](const Result* result) {
            return result->outcome == outcome;
        }));
    };
    return Attribute("tests", std::to_string(results.size())) +
           Attribute("failures", count(Result::Outcome::FAILED)) +
           Attribute("errors", count(Result::Outcome::UNREADABLE)) + Attribute("time", Seconds(took));
}

std::string CaseOf(const Result& result) {
    std::string text = "    <testcase" + Attribute("classname", result.place.file) +
                       Attribute("name", result.name) + Attribute("file", result.place.file) +
                       Attribute("line", std::to_string(result.place.line)) +
                       Attribute("time", Seconds(result.took));
    if (result.outcome == Result::Outcome::PASSED) {
        return text + "/>\n";
    }
    const std::string element = result.outcome == Result::Outcome::FAILED ? "failure" : "error";
    text += ">\n      <" + element + Attribute("message", result.text) + ">";
    for (const std::string& reason : result.reasons) {
        text.append(Escaped(reason)).append("\n");
    }
    return text + "</" + element + ">\n    </testcase>\n";
}

std::error_code Write(const std::string& path, const std::string& text) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) {
        return base::ReplaceFile(path, text, kFileMode, base::Beside::Unused);
    }
    const base::UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
    for (std::size_t at = 0; file && at < text.size();) {
        const ssize_t written = write(file.Get(), text.data() + at, text.size() - at);
        if (written < 0) {
            return base::LastError();
        }
        at += static_cast<std::size_t>(written);
    }
    return base::ErrorUnless(static_cast<bool>(file));
}

}  // namespace

std::error_code WriteJunit(const std::string& path, const std::vector<Result>& results) {
    std::vector<std::string> files;
    std::map<std::string, std::vector<const Result*>> byFile;
    std::vector<const Result*> all;
    for (const Result& result : results) {
        if (byFile.count(result.place.file) == 0) {
            files.push_back(result.place.file);
        }
        byFile[result.place.file].push_back(&result);
        all.push_back(&result);
    }
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites" + Counts(all) + ">\n";
    for (const std::string& file : files) {
        text.append("  <testsuite")
            .append(Attribute("name", file))
            .append(Counts(byFile[file]))
            .append(">\n");
        for (const Result* result : byFile[file]) {
            text += CaseOf(*result);
        }
        text += "  </testsuite>\n";
    }
    return Write(path, text + "</testsuites>\n");
}

}  // namespace policytest
