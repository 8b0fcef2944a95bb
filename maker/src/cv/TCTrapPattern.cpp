#include "cv/TCTrapPattern.h"

#include "BoundedRing.h"

namespace cv {

class TCTrapPattern::Impl {
public:
    Impl() : matches(MAX_MATCHES) { matches.Allocate(); }

    BoundedRing<TSTrapMatch> matches;
};

TCTrapPattern::TCTrapPattern() : m_impl(std::make_unique<Impl>()) {}
TCTrapPattern::~TCTrapPattern() = default;

TCTrapPattern& TCTrapPattern::Instance() {
    static auto* instance = new TCTrapPattern;
    return *instance;
}

void TCTrapPattern::AddItemToQueue(const TSTrapMatch& match) noexcept {
    m_impl->matches.Push(match);
}

std::vector<TSTrapMatch> TCTrapPattern::Items(std::uint64_t* end) const {
    return m_impl->matches.Items(end);
}

void TCTrapPattern::DiscardBefore(std::uint64_t end) noexcept {
    m_impl->matches.DiscardBefore(end);
}

void TCTrapPattern::Clear() noexcept {
    m_impl->matches.Clear();
}

std::uint64_t TCTrapPattern::Dropped() const noexcept {
    return m_impl->matches.Lost();
}

}  // namespace cv
