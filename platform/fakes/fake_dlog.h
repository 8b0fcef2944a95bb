#pragma once
/// The platform log as a list.
#include <string>
#include <vector>

namespace fakes {

struct LogLine {
    int buffer;
    int priority;
    std::string tag;
    std::string text;
};

namespace dlog {
void Clear();
std::vector<LogLine> Lines();
/// Lines whose text contains `part`.
int Count(const std::string& part);
bool Has(const std::string& part);
/// The first line that contains `part`; an empty line with priority -1 when there is none.
LogLine Find(const std::string& part);
/// Waits until at least `times` lines contain `part`; false when fakes::kPatience ends.
bool WaitFor(const std::string& part, int times = 1);
}  // namespace dlog
}  // namespace fakes
