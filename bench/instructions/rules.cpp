/// A key's change that no rule meets, judged with few and with many rules: in the checker's callback alone
/// (scripts/instructions), on a key store in memory.
#include <cstdlib>
#include <string>
#include <vector>

#include "ZOLPolicy.h"
#include "ZOLVconfChecker.h"
#include "counted.h"
#include "fake_vconf.h"
#include "fakes.h"

namespace {

std::string KeyOf(int number) {
    return "db/menu/group/key" + std::to_string(number);
}

void CountChange(int rules) {
    fakes::Reset();
    std::vector<zol::ZOLVconfMonitor> items;
    for (int number = 0; number < rules; ++number) {
        zol::ZOLVconfMonitor item;
        item.key = KeyOf(number);
        item.condition = "IS";
        item.type = "INT";
        item.intValue = 7;
        items.push_back(item);
    }
    zol::TCVconfChecker checker(nullptr, items);
    if (!checker.Create()) {
        std::abort();
    }
    checker.CheckNow(items);
    const std::string key = KeyOf(rules / 2);
    int value = 1000;
    CountInstructions("key change judged, rules: " + std::to_string(rules), 1000,
                      [&] { fakes::vconf::SetInt(key, ++value); });
}

}  // namespace

int main() {
    CountChange(1);
    CountChange(20000);
    return 0;
}
