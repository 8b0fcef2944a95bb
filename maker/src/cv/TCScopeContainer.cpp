#include "cv/TCScopeContainer.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "cv/TCTrapPattern.h"
#include "platform_clock.h"

namespace cv {
namespace {

constexpr std::size_t kNumberText = 24;  // bytes: a sign, 20 digits and a terminator

template <std::size_t size>
void CopyCut(char (&to)[size], std::string_view from) {
    const std::size_t length = std::min(from.size(), size - 1);
    std::memcpy(to, from.data(), length);
    to[length] = '\0';
}

/// The number as its own size holds it: a 4-byte -1 is 4294967295.
std::uint64_t WithoutSign(const TSCallItem& item) {
    constexpr unsigned kBitsPerByte = 8;
    const unsigned unused = static_cast<unsigned>(sizeof(item.bits) - item.size) * kBitsPerByte;
    return item.bits & (~std::uint64_t{0} >> unused);
}

}  // namespace

TCTrapPattern& TCTrapPattern::Instance() {
    static TCTrapPattern instance;
    return instance;
}

void TCScope::Open(const TCScopeContainer& site) noexcept {
    m_event.site = &site.Location();
    m_event.thread = static_cast<std::int32_t>(syscall(SYS_gettid));
    m_event.textLength = 0;
    m_event.itemCount = 0;
    m_traps = TCScopeHandler::Instance().ConditionsOf(site.Location());
    m_event.startNs = platform_clock_steady_ns();
}

void TCScope::Close() noexcept {
    m_event.durationNs = platform_clock_steady_ns() - m_event.startNs;
    TCScopeHandler::Instance().Push(m_event);
}

TSCallItem* TCScope::NextItem() noexcept {
    return m_active && m_event.itemCount < TSEvent::MAX_ITEMS ? &m_event.items[m_event.itemCount++] : nullptr;
}

void TCScope::EvaluateNumber(const TSCallItem& item) const noexcept {
    const unsigned index = m_event.itemCount - 1U;
    if (m_traps == nullptr || !m_traps->ItemExists(index)) {
        return;
    }
    const std::uint64_t plain = WithoutSign(item);
    const auto value = static_cast<std::int64_t>(item.bits);
    char text[kNumberText];
    if (item.kind == EItemKind::SIGNED) {
        std::snprintf(text, sizeof(text), "%" PRId64, value);
    } else {
        std::snprintf(text, sizeof(text), "%" PRIu64, plain);
    }
    // Beyond the signed range an unsigned number has no signed form.
    const bool hasSigned = item.kind == EItemKind::SIGNED || value >= 0;
    for (const TSTrapItem& trap : m_traps->GetItemsByIndex(index)) {
        if ((hasSigned && trap.EvaluateResult(value)) || trap.EvaluateResult(plain) ||
            trap.EvaluateResult(std::string_view(text))) {
            Match(trap, text);
        }
    }
}

void TCScope::EvaluateText(unsigned index, std::string_view value) const noexcept {
    if (m_traps == nullptr) {
        return;
    }
    for (const TSTrapItem& trap : m_traps->GetItemsByIndex(index)) {
        if (trap.EvaluateResult(value)) {
            Match(trap, value);
        }
    }
}

void TCScope::Match(const TSTrapItem& trap, std::string_view value) const noexcept {
    TSTrapMatch match{};
    match.site = m_event.site;
    match.timeNs = platform_clock_steady_ns();
    match.thread = m_event.thread;
    match.itemIndex = trap.itemIndex;
    CopyCut(match.name, trap.name);
    CopyCut(match.value, value);
    TCTrapPattern::Instance().AddItemToQueue(match);
}

bool TSCallItemHelper::StoreNumber(TCScope& scope, EItemKind kind, std::size_t size,
                                   std::uint64_t bits) noexcept {
    TSCallItem* item = scope.NextItem();
    if (item == nullptr) {
        return false;
    }
    *item = {bits, static_cast<std::uint16_t>(size), kind, false};
    scope.EvaluateNumber(*item);
    return true;
}

bool TSCallItemHelper::StoreText(TCScope& scope, std::string_view text) noexcept {
    TSCallItem* item = scope.NextItem();
    if (item == nullptr) {
        return false;
    }
    TSEvent& event = scope.m_event;
    const std::size_t room = TSEvent::MAX_TEXT - event.textLength;
    const auto kept = static_cast<std::uint16_t>(std::min(text.size(), room));
    std::memcpy(event.text + event.textLength, text.data(), kept);
    *item = {event.textLength, kept, EItemKind::TEXT, kept < text.size()};
    event.textLength = static_cast<std::uint16_t>(event.textLength + kept);
    scope.EvaluateText(event.itemCount - 1U, text);
    return true;
}

}  // namespace cv
