#include "tools/common/widthtrial.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>

#include "tools/common/interrupt.h"
#include "tools/common/readback.h"
#include "tools/common/signalblock.h"
#include "tools/common/widthproof.h"

namespace kest::tools
{
namespace
{

constexpr std::size_t firstBytes = widthReads::firstBytes;
// pages of parts with one offset byte; a ferroelectric part has none
constexpr std::array<std::size_t, 4> shortPages{4, 8, 16, firstBytes};
// two that agree, and some that fail or differ
constexpr int mostReads = 6;

constexpr const char* readsFail = "after a byte was written, its reads differ or fail";

std::uint8_t upper(const trialByte& trial) { return static_cast<std::uint8_t>(trial.offset >> 8); }
std::uint8_t lower(const trialByte& trial) { return static_cast<std::uint8_t>(trial.offset); }

/// Where a part with one offset byte puts the second byte of a page that it is sent.
std::size_t nextOf(const trialByte& trial, std::size_t page)
{
    const std::size_t at = upper(trial);
    return at / page * page + (at + 1) % page;
}

/// A part with one offset byte, after it was sent a byte behind two: the lower offset byte is the first one written.
firstContent afterTwo(firstContent first, const trialByte& trial, std::size_t page)
{
    first.at(upper(trial)) = lower(trial);
    first.at(nextOf(trial, page)) = trial.wanted;
    return first;
}

firstContent afterOne(firstContent first, const trialByte& trial)
{
    if (trial.offset < first.size()) {
        first[trial.offset] = trial.wanted;
    }
    return first;
}

/// Whether a part with one offset byte would show a byte sent behind two, whatever its pages are.
bool shows(const firstContent& first, const trialByte& trial)
{
    // behind the last place the byte could go to another address
    constexpr std::uint32_t lastUpper = 0xDF;
    return upper(trial) <= lastUpper && std::ranges::all_of(shortPages, [&](std::size_t page) {
               const firstContent then = afterTwo(first, trial, page);
               return then != first && then != afterOne(first, trial);
           });
}

/// Writes one byte as the chip's type takes it, whatever signal came.
void writeByte(seeprom& chip, std::uint32_t at, unsigned char byte)
{
    const interruptsHeld calm;
    static_cast<void>(chip.write(at, {&byte, 1}));
}

/// The byte of a trial as the chip's type reads it. Nothing unless two reads in a row agree.
std::optional<unsigned char> readByte(seeprom& chip, std::uint32_t at)
{
    // no byte: a std::optional of a byte draws a warning of g++ 12 at -O2
    constexpr int none = -1;
    int last = none;
    for (int count = 0; count < mostReads; ++count) {
        try {
            const unsigned char now = chip.read({at, 1}, "width proof").front();
            if (last == now) {
                return now;
            }
            last = now;
        } catch (const failure&) {
            // a single failed read says nothing
            last = none;
        }
    }
    return std::nullopt;
}

/// Where a part with one offset byte ends that shows a trial's bytes up to an offset. These tell its start from those of
/// other blocks.
std::optional<partEnd> endShownBy(const seeprom& chip, const firstContent& now, std::size_t last)
{
    return findShortEnd(chip, now, std::max(startBytes, last + 1));
}

trialResult seenAfterOne(const seeprom& chip, const trialByte& trial, const firstContent& first)
{
    const auto now = readFirstAgain(chip).bytes;
    if (now == afterOne(first, trial)) {
        const auto reach = endShownBy(chip, *now, trial.offset);
        return reach ? trialResult{.end = *reach == partEnd::nextAddress ? trialEnd::goesOn : trialEnd::asClaimed,
                                   .seen = {},
                                   .reach = *reach}
                     : trialResult{.seen = readsFail};
    }
    if (now != first) {
        return {.seen = readsFail};
    }
    return {.end = trialEnd::unchanged,
            .seen = fmt::format("a byte written at offset 0x{:X} behind one offset byte changed nothing: it takes two, "
                                "or is write-protected",
                                trial.offset),
            .isBack = true};
}

/// What the reads behind one offset byte say of a byte that was sent behind two.
enum class arrival : std::uint8_t {
    behindOne, ///< it arrived as on a part with one
    nowhere, ///< nothing has changed
    asOnTwo, ///< nothing has changed but that byte, or the reads can't be of one with one
    notKnown, ///< an offset byte can have arrived as another one
};
arrival arrivalOf(const firstAgain& again, const trialByte& trial, const firstContent& first)
{
    if (!again.bytes) {
        return again.unlike ? arrival::asOnTwo : arrival::notKnown;
    }
    const firstContent& now = *again.bytes;
    if (std::ranges::any_of(shortPages, [&](std::size_t page) { return now == afterTwo(first, trial, page); })) {
        return arrival::behindOne;
    }
    if (now == first) {
        return arrival::nowhere;
    }
    return now == afterOne(first, trial) ? arrival::asOnTwo : arrival::notKnown;
}

trialResult seenAfterTwo(seeprom& chip, const trialByte& trial, const firstContent& first)
{
    const auto back = readByte(chip, trial.offset);
    const firstAgain again = readFirstAgain(chip);
    const arrival seen = arrivalOf(again, trial, first);
    if (seen == arrival::behindOne) {
        return {.end = trialEnd::inOther,
                .seen = "a byte written behind two offset bytes arrived as one behind one does",
                .reach = endShownBy(chip, *again.bytes, upper(trial) + 1U).value_or(partEnd::notKnown)};
    }
    // a part with one offset byte reads the byte back, too: only reads behind one tell
    if (!back || seen == arrival::notKnown) {
        return {.seen = readsFail};
    }
    if (*back == trial.wanted) {
        return {.end = trialEnd::asClaimed, .seen = {}};
    }
    if (*back != trial.before || seen != arrival::nowhere) {
        return {.seen = readsFail};
    }
    return {.end = trialEnd::unchanged,
            .seen = fmt::format("a byte written at offset 0x{:X} behind two offset bytes changed nothing: it takes "
                                "one, or is write-protected",
                                trial.offset),
            .isBack = true};
}

/// Puts the byte back where a part with two offset bytes took it, and then what that does to a part with one.
bool putAllBack(seeprom& chip, const trialByte& trial, const firstContent& first)
{
    // reads behind two offset bytes come first: they change a ferroelectric part with one
    const bool isBack = readByte(chip, trial.offset) == trial.before || takeBack(chip, trial);
    return putBack(chip, first) && isBack;
}

trialResult writeAndLook(seeprom& chip, unsigned claimedBytes, const trialByte& trial, const firstContent& first)
{
    const pageWatch pages(chip);
    try {
        writeByte(chip, trial.offset, trial.wanted);
    } catch (const failure& why) {
        return {.seen = {}, .trouble = why};
    }
    if (claimedBytes == 1) {
        return seenAfterOne(chip, trial, first);
    }
    trialResult result = seenAfterTwo(chip, trial, first);
    // a hub can be busy for its own reasons
    if (result.end == trialEnd::unchanged && pages.waits().busyPages != 0 && !chip.target().behindHub()) {
        return {.seen = fmt::format("the chip was busy after a byte was written at offset 0x{:X}, which holds its old "
                                    "one: the byte may have arrived elsewhere",
                                    trial.offset),
                .wentElsewhere = true};
    }
    return result;
}

} // namespace

std::optional<trialByte> chooseTrial(unsigned claimedBytes, const firstContent& first, const byteRange& range,
                                     std::span<const unsigned char> old, std::span<const unsigned char> wanted)
{
    for (std::uint32_t index = 0; index < range.length && first.size() == firstBytes; ++index) {
        const trialByte trial{.offset = range.offset + index, .before = old[index], .wanted = wanted[index]};
        if (trial.before != trial.wanted && (claimedBytes == 1 || shows(first, trial))) {
            return trial;
        }
    }
    return std::nullopt;
}

bool takeBack(seeprom& chip, const trialByte& trial)
{
    const interruptsHeld calm;
    try {
        writeByte(chip, trial.offset, trial.before);
    } catch (const failure&) {
        return false;
    }
    return readByte(chip, trial.offset) == trial.before;
}

trialResult tryOut(seeprom& chip, const trialByte& trial, const firstContent& first)
{
    const signalBlock quiet;
    const interruptsHeld calm;
    const unsigned claimedBytes = offsetBytesOf(*chip.target().end().type);
    if (readByte(chip, trial.offset) != trial.before) {
        return {.seen = "its reads differ or fail", .isBack = putBack(chip, first)};
    }
    trialResult result = writeAndLook(chip, claimedBytes, trial, first);
    if (result.end == trialEnd::inOther || result.end == trialEnd::goesOn ||
        (result.end == trialEnd::notKnown && claimedBytes == 1)) {
        result.isBack = putBack(chip, first);
    } else if (result.end == trialEnd::notKnown) {
        result.isBack = putAllBack(chip, trial, first) && !result.wentElsewhere;
    }
    return result;
}

} // namespace kest::tools
