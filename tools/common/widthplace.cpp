#include "tools/common/widthplace.h"

#include <algorithm>

#include "tools/common/widthbytes.h"

namespace kest::tools
{
namespace
{

constexpr std::size_t surroundingBytes = 32;
constexpr std::size_t mostPlaces = 6;
// Above them 32 bytes behind a place would pass the end of 256 bytes.
constexpr std::size_t placesEnd = 0xE0;
// The smallest pages have four bytes. At a page's last byte a part with one offset byte goes on at the page's start.
constexpr std::size_t smallestPage = 4;

std::size_t wrapped(std::size_t at) { return at % widthReads::firstBytes; }

bool isUsable(const widthReads& reads, std::size_t at)
{
    const std::size_t length = surroundingOf(reads) + 1;
    return isSafePlace(at) && reads.isStable(at, length) && isVaried(std::span(reads.first()).subspan(at, length));
}

} // namespace

bool isSafePlace(std::size_t at) { return at % smallestPage != smallestPage - 1 && at < placesEnd; }

std::size_t surroundingOf(const widthReads& reads) { return std::min(surroundingBytes, reads.piece()); }

std::vector<widthPlace> placesOf(const widthReads& reads, const widthQuestion& question)
{
    const auto isWritten = [&question](std::size_t at) {
        return at >= question.offset && at - question.offset < question.length;
    };
    std::vector<widthPlace> places;
    for (const bool written : {true, false}) {
        for (std::size_t at = 0; at < placesEnd && places.size() < mostPlaces; ++at) {
            if (isWritten(at) == written && isUsable(reads, at)) {
                places.push_back({.at = static_cast<std::uint8_t>(at)});
            }
        }
    }
    return places;
}

std::vector<widthPlace> anyPlaces()
{
    std::vector<widthPlace> places;
    for (std::uint8_t at = 0; places.size() < mostPlaces; ++at) {
        if (isSafePlace(at)) {
            places.push_back({.at = at});
        }
    }
    return places;
}

std::ptrdiff_t variedPlaces(std::span<const widthPlace> places)
{
    return std::ranges::count_if(places, [](const widthPlace& place) { return isVaried(place.bytes); });
}

bool fitsOne(const widthReads::firstRead& first, const widthPlace& place, std::size_t ahead)
{
    for (std::size_t at = 0; at < place.bytes.size(); ++at) {
        if (place.bytes[at] != first[wrapped(place.at + ahead + at)]) {
            return false;
        }
    }
    return true;
}

bool readsAlike(const widthReads::firstRead& first, std::span<const widthPlace> places, std::size_t ahead)
{
    return std::ranges::all_of(places, [&first, ahead](const widthPlace& place) {
        for (std::size_t at = 0; at < place.bytes.size(); ++at) {
            if (first[wrapped(first[place.at] + at)] != first[wrapped(place.at + ahead + at)]) {
                return false;
            }
        }
        return true;
    });
}

bool overlapAsOne(std::span<const widthPlace> places)
{
    for (const widthPlace& one : places) {
        for (const widthPlace& other : places) {
            const std::span<const std::uint8_t> bytes = one.bytes;
            const std::size_t apart = other.at > one.at ? other.at - one.at : bytes.size();
            if (apart < bytes.size() && isVaried(bytes) &&
                std::ranges::equal(bytes.subspan(apart), std::span(other.bytes).first(bytes.size() - apart))) {
                return true;
            }
        }
    }
    return false;
}

std::size_t distanceFrom(const widthReads::firstRead& first, const widthPlace& place)
{
    return widthReads::firstBytes + first[place.at + 1U] - first[place.at];
}

} // namespace kest::tools
