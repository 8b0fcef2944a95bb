#include "fake_dlog.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "base/exception_wall.h"
#include "dlog.h"
#include "fakes.h"

namespace fakes {
namespace dlog {
namespace {

std::mutex g_mutex;
std::condition_variable g_changed;

std::vector<LogLine>& TheLines() {
    static auto* lines = new std::vector<LogLine>;
    return *lines;
}

/// A part that ends in a letter does not end inside a word: "Create" is not in "Created".
bool Contains(const LogLine& line, const std::string& part) {
    const bool endsInLetter = !part.empty() && std::isalpha(static_cast<unsigned char>(part.back())) != 0;
    for (std::size_t at = line.text.find(part); at != std::string::npos; at = line.text.find(part, at + 1)) {
        const std::size_t end = at + part.size();
        if (!endsInLetter || end == line.text.size() ||
            std::isalpha(static_cast<unsigned char>(line.text[end])) == 0) {
            return true;
        }
    }
    return false;
}

int CountLocked(const std::string& part) {
    return static_cast<int>(std::count_if(TheLines().begin(), TheLines().end(),
                                          [&part](const LogLine& line) { return Contains(line, part); }));
}

}  // namespace

void Clear() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    TheLines().clear();
}

std::vector<LogLine> Lines() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return TheLines();
}

int Count(const std::string& part) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return CountLocked(part);
}

bool Has(const std::string& part) {
    return Count(part) > 0;
}

LogLine Find(const std::string& part) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    for (const LogLine& line : TheLines()) {
        if (Contains(line, part)) {
            return line;
        }
    }
    return {-1, -1, "", ""};
}

bool WaitFor(const std::string& part, int times) {
    std::unique_lock<std::mutex> lock(g_mutex);
    return g_changed.wait_for(lock, kPatience, [&] { return CountLocked(part) >= times; });
}

}  // namespace dlog
}  // namespace fakes

extern "C" {

void dlog_vemit(int buffer, int priority, const char* tag, const char* format, va_list arguments) {
    char text[4096];
    std::vsnprintf(text, sizeof(text), format, arguments);
    const std::lock_guard<std::mutex> lock(fakes::dlog::g_mutex);
    // Without memory the line is lost: this never throws.
    base::CatchAll(
        [&] {
            fakes::dlog::TheLines().push_back({buffer, priority, tag, text});
        },
        [](const char* /*why*/) {});
    fakes::dlog::g_changed.notify_all();
}

void dlog_emit(int buffer, int priority, const char* tag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    dlog_vemit(buffer, priority, tag, format, arguments);
    va_end(arguments);
}
}
