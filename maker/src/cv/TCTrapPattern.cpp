#include "cv/TCTrapPattern.h"

#include "BoundedRing.h"

namespace cv {
namespace {

using Matches = BoundedRing<TSTrapMatch, TCTrapPattern::MAX_MATCHES>;

Matches& TheMatches() {
    static Matches matches;
    return matches;
}

}  // namespace

TCTrapPattern& TCTrapPattern::Instance() {
    static TCTrapPattern instance;
    return instance;
}

void TCTrapPattern::AddItemToQueue(const TSTrapMatch& match) noexcept {
    TheMatches().Push(match);
}

std::vector<TSTrapMatch> TCTrapPattern::Items(std::uint64_t* end) const {
    return TheMatches().Items(end);
}

void TCTrapPattern::DiscardBefore(std::uint64_t end) noexcept {
    TheMatches().DiscardBefore(end);
}

void TCTrapPattern::Clear() noexcept {
    TheMatches().Clear();
}

std::uint64_t TCTrapPattern::Dropped() const noexcept {
    return TheMatches().Lost();
}

}  // namespace cv
