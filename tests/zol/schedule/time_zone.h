#pragma once
/// A time zone for the length of a test.
#include <time.h>

#include <cstdlib>
#include <string>

class TimeZone {
public:
    explicit TimeZone(const char* zone) {
        const char* old = std::getenv("TZ");
        m_hadOne = old != nullptr;
        m_old = m_hadOne ? old : "";
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone() {
        if (m_hadOne) {
            setenv("TZ", m_old.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    bool m_hadOne = false;
    std::string m_old;
};
