#include "device_test.h"

#include <set>

#include "dlog.h"

void DeviceTest::ExpectLogged(int priority, const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
        EXPECT_EQ(PriorityOf(text), priority) << text;
    }
}

void DeviceTest::ExpectErrors(const std::vector<std::string>& texts) {
    ExpectLogged(DLOG_PRIORITY_ERROR, texts);
}

void DeviceTest::ExpectInOrder(const std::vector<std::string>& texts) {
    auto next = texts.begin();
    for (const fakes::LogLine& line : fakes::dlog::Lines()) {
        next += next != texts.end() && line.text.find(*next) != std::string::npos ? 1 : 0;
    }
    EXPECT_TRUE(next == texts.end()) << "missing: " << *next;
}

void DeviceTest::ExpectPlaces(const std::string& function, const std::vector<std::string>& texts) {
    std::set<std::string> places;
    for (const std::string& text : texts) {
        const std::string line = fakes::dlog::Find("> " + text).text;
        EXPECT_EQ(line.substr(0, line.find('(')), function) << text;
        places.insert(line.substr(0, line.find(" > ")));
    }
    EXPECT_EQ(places.size(), texts.size());
}

void DeviceTest::ExpectAssertedOnceEach(const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
        EXPECT_EQ(Assertions(text), 1) << text;
    }
}
