#pragma once
/// What the tests on the fakes share: a fresh machine, and words for its log.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake_dlog.h"
#include "fakes.h"
#include "waiting.h"

class DeviceTest : public testing::Test {
protected:
    DeviceTest() { fakes::Reset(); }

    /// From now on a failed assertion reports and returns.
    static void SurviveAssertions() { fakes::WriteDeviceFile("/etc/release", ""); }

    static int Logged(const std::string& text) { return fakes::dlog::Count(text); }
    static int PriorityOf(const std::string& text) { return fakes::dlog::Find(text).priority; }
    /// Each text was logged, with this priority where it came first.
    static void ExpectLogged(int priority, const std::vector<std::string>& texts);
    static void ExpectErrors(const std::vector<std::string>& texts);
    /// The texts were logged in this order, whatever stands between them.
    static void ExpectInOrder(const std::vector<std::string>& texts);
    /// Each text was logged by `function`, given as "source: function", from a line of its own.
    static void ExpectPlaces(const std::string& function, const std::vector<std::string>& texts);
    /// How often an assertion was reported, e.g. "index >= 0 [core/src/List:72]"; without one: any.
    static int Assertions(const std::string& text = "") { return Logged("ASSERT: " + text); }
    static void ExpectAssertedOnceEach(const std::vector<std::string>& texts);
};
