#pragma once
/// What a trace scope records.
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace cv {

class TCScope;

/// Where a scope stands in the source. The texts live for ever (__FILE__, __func__).
struct TSSourceLocation {
    const char* file;
    const char* function;
    unsigned line;
};

enum class EItemKind : std::uint8_t { SIGNED = 1, UNSIGNED = 2, TEXT = 3 };

/// One recorded value.
struct TSCallItem {
    std::uint64_t bits;  ///< the number, sign-extended when signed; of a text its offset in the event's text
    std::uint16_t size;  ///< bytes: 1, 2, 4 or 8 of a number, the kept length of a text
    EItemKind kind;
    bool cut;  ///< the text was longer than what is kept
};

/// One closed scope. Of fixed size, so that a recording never grows.
struct TSEvent {
    static constexpr unsigned MAX_ITEMS = 8;
    static constexpr std::size_t MAX_TEXT = 256;  ///< bytes of all texts together

    const TSSourceLocation* site;
    std::uint64_t startNs;  ///< steady clock
    std::uint64_t durationNs;
    std::int32_t thread;       ///< kernel thread id
    std::uint16_t textLength;  ///< used bytes of `text`
    std::uint8_t itemCount;
    TSCallItem items[MAX_ITEMS];
    char text[MAX_TEXT];

    std::string_view TextOf(const TSCallItem& item) const { return {text + item.bits, item.size}; }
};

/// Adds items to an open scope and evaluates the trap conditions of each. Items are numbered from 0 in the
/// order in which they are stored. On the thread of the scope; throws nothing. False when the scope is not
/// active or holds MAX_ITEMS items already; a trace point may drop that, it can do nothing about it.
struct TSCallItemHelper {
    template <class Number>
    static bool StoreFixed(TCScope& scope, Number value) noexcept {
        static_assert(std::is_integral<Number>::value && sizeof(Number) <= sizeof(std::uint64_t),
                      "an item is an integer of at most eight bytes");
        constexpr EItemKind kKind = std::is_signed<Number>::value ? EItemKind::SIGNED : EItemKind::UNSIGNED;
        return StoreNumber(scope, kKind, sizeof(Number), static_cast<std::uint64_t>(value));
    }

    /// The bytes without a terminator. What does not fit into the event is cut in the recording; trap
    /// conditions see the whole text.
    static bool StoreText(TCScope& scope, std::string_view text) noexcept;

private:
    static bool StoreNumber(TCScope& scope, EItemKind kind, std::size_t size, std::uint64_t bits) noexcept;
};

}  // namespace cv
