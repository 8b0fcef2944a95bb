/// Reads a text as the numbers that the key store and a policy's attributes hold, beside the C library's
/// readers.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>

#include "PolicyAttributes.h"
#include "StoredNumber.h"
#include "ZOLScheduler.h"
#include "ZOLShiftedClock.h"
#include "fake_clock.h"
#include "fake_vconf.h"
#include "fakes.h"
#include "fuzz_target.h"

namespace {

using fuzz::Require;
using zol::TCScheduler;
using zol::TCShiftedClock;

constexpr std::int64_t kUntouched = 4711;

/// The number at the beginning; nothing when there is none or it does not fit.
std::optional<std::int64_t> NumberOf(const std::string& text) {
    static_assert(sizeof(long long) == sizeof(std::int64_t));
    char* end = nullptr;
    errno = 0;
    const std::int64_t number = std::strtoll(text.c_str(), &end, 10);
    return end == text.c_str() || errno == ERANGE ? std::nullopt : std::optional(number);
}

void CheckStored(const std::string& text) {
    constexpr const char* kKey = "db/fuzz/number";
    fakes::vconf::SetString(kKey, text);
    const std::optional<std::int64_t> wanted = NumberOf(text);
    std::int64_t number = kUntouched;
    const zol::EStoredNumber result = zol::ReadStoredNumber(kKey, number);
    Require((result == zol::EStoredNumber::LOADED) == wanted.has_value(), "whether there is a number");
    Require(number == wanted.value_or(kUntouched), "a stored number");
    zol::WriteStoredNumber(kKey, number);
    Require(fakes::vconf::GetString(kKey) == std::to_string(number), "a number written down");
}

/// Any moment may have been stored.
void CheckTimes(const std::string& text) {
    fakes::vconf::SetString(TCShiftedClock::KEY_CLOCK_DIFF, text);
    fakes::vconf::SetString(TCScheduler::KEY_START_TIME, text);
    fakes::vconf::SetString(TCScheduler::KEY_FIRST_BOOT_TIME, text);
    TCShiftedClock clock;
    clock.LoadTimeShift();
    const auto stored = static_cast<std::uint64_t>(NumberOf(text).value_or(0));
    const std::uint64_t now = fakes::clock::kEpoch + stored;
    Require(static_cast<std::uint64_t>(clock.GetCurrentTime()) == now, "the shifted time");
    TCScheduler scheduler([] {}, clock);
    scheduler.SetSchedule({{zol::SCHEDULE_EVENT_DISABLE, {zol::TIME_BASE_FIRST_BOOT, kUntouched}}}, false);
    Require(static_cast<std::uint64_t>(scheduler.GetTimeElapsed()) == now - stored, "the time elapsed");
}

/// A number beyond 64 bits is far beyond 32.
std::int64_t Clamped(const std::string& text, std::int64_t lowest, std::int64_t highest) {
    return std::clamp<std::int64_t>(std::strtoll(text.c_str(), nullptr, 10), lowest, highest);
}

void CheckAttribute(const std::string& text) {
    zol::TCAttributes attributes;
    attributes.Insert("Number", text);
    char* end = nullptr;
    std::strtoll(text.c_str(), &end, 10);
    const bool isNumber = end != text.c_str();

    using Int32 = std::numeric_limits<std::int32_t>;
    const auto wanted = static_cast<std::int32_t>(Clamped(text, Int32::min(), Int32::max()));
    std::int32_t number = kUntouched;
    Require(attributes.GetValue("number", number) && number == (isNumber ? wanted : kUntouched),
            "a signed attribute");
    std::uint32_t positive = kUntouched;
    Require(attributes.GetValue("number", positive) && positive == static_cast<std::uint32_t>(number),
            "an unsigned attribute");

    constexpr std::int64_t kHighest = std::numeric_limits<std::uint32_t>::max();
    const std::int64_t clamped = Clamped(text, -kHighest - 1, kHighest + 1);
    const bool isBeyond = clamped > kHighest || clamped < -kHighest;
    std::uint64_t time = kUntouched;
    Require(attributes.GetValue("number", time) && time == (isBeyond ? static_cast<std::uint64_t>(kHighest)
                                                                     : static_cast<std::uint32_t>(clamped)),
            "a time");
    double real = 0;
    bool flag = false;
    attributes.GetValue("number", real);
    attributes.GetValue("number", flag);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Neither the store nor a document holds a zero.
    const std::string text(data, std::find(data, data + size, 0));
    fakes::Reset();
    CheckStored(text);
    CheckAttribute(text);
    CheckTimes(text);
    return 0;
}
