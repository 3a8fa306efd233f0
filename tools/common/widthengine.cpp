#include "tools/common/widthengine.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>

#include "tools/common/widthbytes.h"

namespace kest::tools
{
namespace
{

constexpr std::ptrdiff_t fewestPlaces = 3;
constexpr std::size_t comparedBytes = 16;

// from a place to the next one
constexpr std::size_t longestArrival = 2 * widthReads::firstBytes - 1 + comparedBytes;

constexpr const char* otherBytes = "behind two offset bytes it gives other bytes than behind one";
constexpr const char* refusesSome = "it refuses a second offset byte at some places and takes it at others";

} // namespace

bool widthEngine::conclude(widthVerdict verdict, std::string seen)
{
    m_finding.verdict = verdict;
    m_finding.seen = std::move(seen);
    return false;
}

readEnd widthEngine::readBehindTwo(std::uint8_t at, std::vector<std::uint8_t>& bytes)
{
    const std::array<std::uint8_t, 2> offset{at, m_reads.first()[at]};
    m_sentTwo = true;
    return m_reads.read(offset, bytes);
}

/// Whether the part answers, and still holds a place's byte.
bool widthEngine::isAnswered(std::uint8_t at)
{
    std::uint8_t byte = 0;
    return m_reads.read({&at, 1}, {&byte, 1}) == readEnd::done && byte == m_reads.first()[at];
}

/// Reads twice behind a place. A refusal counts when the part answers a read behind one offset byte and then refuses
/// again: the first time it could have been in a write cycle.
bool widthEngine::readPlace(widthPlace& place)
{
    place.bytes.resize(surroundingOf(m_reads));
    readEnd end = readBehindTwo(place.at, place.bytes);
    if (end == readEnd::refused && isAnswered(place.at)) {
        end = readBehindTwo(place.at, place.bytes);
        if (end == readEnd::refused && isAnswered(place.at)) {
            place.refused = true;
            return true;
        }
    }
    std::vector<std::uint8_t> again(place.bytes.size());
    if (end != readEnd::done || readBehindTwo(place.at, again) != readEnd::done) {
        return conclude(widthVerdict::notDecidable, "a read behind two offset bytes failed");
    }
    return again == place.bytes || conclude(widthVerdict::flaky, fmt::format("two reads behind the offset bytes "
                                                                             "{:02X} {:02X} differ",
                                                                             place.at, m_reads.first()[place.at]));
}

bool widthEngine::readPlaces()
{
    std::size_t refused = 0;
    for (widthPlace& place : m_places) {
        if (!readPlace(place)) {
            return false;
        }
        refused += place.refused ? 1 : 0;
        if (refused == 2) {
            break;
        }
    }
    if (refused == 0) {
        return true;
    }
    if (m_onePossible && refused == std::min<std::size_t>(2, m_places.size()) && m_places.front().refused) {
        concludeOneByte("it refuses a second offset byte");
        return false;
    }
    return conclude(widthVerdict::flaky, refusesSome);
}

widthFinding widthEngine::run()
{
    const firstEnd end = m_reads.readFirst();
    if (m_reads.piece() < widthReads::firstBytes) {
        // twice as many were too long
        m_longest = std::min(m_longest, 2 * m_reads.piece() - 1);
    }
    if (end == firstEnd::failed) {
        conclude(widthVerdict::notDecidable, m_reads.trouble());
    } else if (end == firstEnd::unlike) {
        judgeUnlike();
    } else if (end == firstEnd::unsteady) {
        conclude(widthVerdict::flaky, "four reads behind one offset byte differ");
    } else {
        if (m_reads.isStable()) {
            m_finding.first.assign(m_reads.first().begin(), m_reads.first().end());
        }
        m_places = placesOf(m_reads, m_question);
        judge();
    }
    if (m_sentTwo && !m_finding.first.empty() && m_finding.verdict != widthVerdict::twoBytes) {
        m_finding.isTouched = !holdsFirst();
    }
    m_finding.reads = m_reads.count();
    return m_finding;
}

/// Whether the part still gives what it gave behind one offset byte before it was sent two.
bool widthEngine::holdsFirst()
{
    widthReads::firstRead now{};
    return m_reads.readWhole(now) && now == m_reads.first();
}

void widthEngine::judge()
{
    if (m_places.empty()) {
        judgePlainContent();
        return;
    }
    if (!readPlaces()) {
        return;
    }
    for (const std::size_t ahead : {std::size_t{0}, std::size_t{1}}) {
        if (fitsAll(ahead)) {
            judgeOneByte(ahead);
            return;
        }
    }
    if (std::ranges::count_if(m_places, [this](const widthPlace& place) { return tells(place); }) >= fewestPlaces) {
        judgeTwoBytes();
        return;
    }
    judgeRest();
}

/// No place of the first 256 bytes shows anything.
void widthEngine::judgePlainContent()
{
    const auto& first = m_reads.first();
    if (!m_reads.isStable()) {
        conclude(widthVerdict::notDecidable, "too few of its bytes are the same in each read");
    } else if (isUniform(first)) {
        conclude(widthVerdict::uniform, fmt::format("its first 256 bytes are all {:02X}", first[0]));
    } else if (isPeriodic(first)) {
        conclude(widthVerdict::notDecidable, "its first 256 bytes repeat");
    } else {
        conclude(widthVerdict::uniform, "its first 256 bytes have too few values");
    }
}

bool widthEngine::fitsAll(std::size_t ahead) const
{
    return std::ranges::all_of(
        m_places, [this, ahead](const widthPlace& place) { return fitsOne(m_reads.first(), place, ahead); });
}

/// Whether no part with one offset byte gives a place's surrounding.
bool widthEngine::tells(const widthPlace& place) const
{
    return isVaried(place.bytes) &&
           (!m_onePossible || (!fitsOne(m_reads.first(), place, 0) && !fitsOne(m_reads.first(), place, 1)));
}

void widthEngine::judgeOneByte(std::size_t ahead)
{
    if (variedPlaces(m_places) < fewestPlaces) {
        conclude(widthVerdict::uniform, "too few of its first 256 bytes differ from their neighbours");
    } else if (readsAlike(m_reads.first(), m_places, ahead)) {
        conclude(widthVerdict::notDecidable, "its content counts up: it reads alike in both widths");
    } else {
        concludeOneByte("behind two offset bytes it goes on as behind one");
    }
}

/// No two reads behind one offset byte can be of the same bytes: they do not begin at that offset.
void widthEngine::judgeUnlike()
{
    m_onePossible = false;
    m_places = anyPlaces();
    if (!readPlaces()) {
        return;
    }
    if (variedPlaces(m_places) < fewestPlaces) {
        judgeRest();
    } else if (overlapAsOne(m_places)) {
        conclude(widthVerdict::flaky, "reads behind one offset byte differ, and those behind two go on as behind one");
    } else {
        judgeTwoBytes();
    }
}

/// Whether a second byte may be sent behind the next offset.
bool widthEngine::hasNext(const widthPlace& place) const
{
    const std::size_t at = place.at + 1U;
    return isSafePlace(at) && (!m_onePossible || m_reads.isStable(at, 1));
}

/// The place behind the next offset, which is read when it has not been. Nothing when that has ended the proof.
std::optional<std::size_t> widthEngine::placeAfter(std::size_t here)
{
    const auto at = static_cast<std::uint8_t>(m_places[here].at + 1);
    const auto known = std::ranges::find(m_places, at, &widthPlace::at);
    if (known != m_places.end()) {
        return known - m_places.begin();
    }
    widthPlace& next = m_places.emplace_back(widthPlace{.at = at});
    if (!readPlace(next) || (next.refused && !conclude(widthVerdict::flaky, refusesSome))) {
        return std::nullopt;
    }
    return m_places.size() - 1;
}

/// Whether a longer read behind one place arrives at the next one.
readEnd widthEngine::arrive(const widthPlace& here, const widthPlace& next, bool& isThere)
{
    std::vector<std::uint8_t> bytes(distanceFrom(m_reads.first(), here) + comparedBytes);
    const readEnd end = readBehindTwo(here.at, bytes);
    isThere = end == readEnd::done &&
              std::ranges::equal(std::span(bytes).last(comparedBytes), std::span(next.bytes).first(comparedBytes));
    return end;
}

/// @return whether that is the end of the proof
bool widthEngine::judgeArrival(std::size_t here, std::size_t next)
{
    bool isThere = false;
    if (arrive(m_places[here], m_places[next], isThere) == readEnd::tooLong) {
        m_longest = distanceFrom(m_reads.first(), m_places[here]) + comparedBytes - 1;
        return false;
    }
    if (isThere) {
        conclude(widthVerdict::twoBytes, otherBytes);
    } else {
        conclude(widthVerdict::notDecidable, "behind two offset bytes it does not go on as a part with two does");
    }
    return true;
}

/// Enough places tell. Where a longer read from a place to the next one fits, one has to arrive there, too; places whose
/// bytes are not varied are the last choice for that.
void widthEngine::judgeTwoBytes()
{
    const std::size_t asked = m_places.size();
    for (const bool varied : {true, false}) {
        for (std::size_t here = 0; here < asked; ++here) {
            if (!tells(m_places[here]) || !hasNext(m_places[here]) ||
                distanceFrom(m_reads.first(), m_places[here]) + comparedBytes > m_longest) {
                continue;
            }
            const auto next = placeAfter(here);
            if (!next || (isVaried(m_places[*next].bytes) == varied && judgeArrival(here, *next))) {
                return;
            }
        }
    }
    if (m_longest >= longestArrival) {
        conclude(widthVerdict::notDecidable, "no read can show that it goes on as a part with two offset bytes");
    } else {
        conclude(widthVerdict::twoBytes, otherBytes);
    }
}

/// Neither width fits all places. A part with two offset bytes that holds little is blank at most of them.
void widthEngine::judgeRest()
{
    if (std::ranges::any_of(m_places, [](const widthPlace& place) { return isUniform(place.bytes); })) {
        conclude(widthVerdict::uniform, "it is blank where two offset bytes reach");
    } else {
        conclude(widthVerdict::notDecidable, "what it gives behind two offset bytes fits neither width");
    }
}

/// The part takes one offset byte. The read across its end also shows that such reads begin at their offset.
void widthEngine::concludeOneByte(const char* why)
{
    const endFinding found = findPartEnd(m_reads, m_question.address);
    if (found.readFailed) {
        conclude(widthVerdict::notDecidable, "a read behind one offset byte failed");
    } else if (!found.isSteady) {
        conclude(widthVerdict::flaky, "a read behind the offset byte F8 differs from the same bytes read before");
    } else {
        conclude(widthVerdict::oneByte, why);
        m_finding.end = found.end;
    }
}

} // namespace kest::tools
