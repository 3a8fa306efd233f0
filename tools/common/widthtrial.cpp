#include "tools/common/widthtrial.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>

#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/offsetreads.h"
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
// of a read by the type, and of putting bytes back
constexpr int mostAttempts = 3;

/// Bytes of a part behind one offset byte.
using firstContent = std::vector<std::uint8_t>;

std::uint8_t upper(const trialByte& trial) { return static_cast<std::uint8_t>(trial.offset >> 8); }
std::uint8_t lower(const trialByte& trial) { return static_cast<std::uint8_t>(trial.offset); }

/// A part with one offset byte, after it was sent a byte behind two: the lower offset byte is the first one written.
firstContent afterTwo(firstContent first, const trialByte& trial, std::size_t page)
{
    const std::size_t at = upper(trial);
    const std::size_t next = at / page * page + (at + 1) % page;
    first.at(at) = lower(trial);
    first.at(next) = trial.wanted;
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

seeprom shortPartOf(const seeprom& chip)
{
    return {asShortPart(chip.target()), {.mode = accessMode::hardware, .speedKhz = chip.speedKhz(), .force = true}};
}

/// Nothing when a read fails.
std::optional<firstContent> readFirstOnce(offsetReads& reads)
{
    const widthQuestion question{.read = [&reads](std::span<const std::uint8_t> offset,
                                                  std::span<std::uint8_t> into) { return reads.read(offset, into); },
                                 .readOther = {},
                                 .mostBytes = std::min<std::size_t>(firstBytes, reads.mostBytes())};
    const auto hub = reads.holdHub();
    if (hub && hub->error() != 0) {
        return std::nullopt;
    }
    widthReads::firstRead whole{};
    return widthReads(question).readWhole(whole) ? std::optional<firstContent>({whole.begin(), whole.end()})
                                                 : std::nullopt;
}

/// A part whose read was cut off can hold SDA. A read by the library frees the bus then.
void freeBus(seeprom& part)
{
    const interruptsHeld calm;
    try {
        static_cast<void>(part.read({0, 1}, "width proof"));
    } catch (const failure&) {
        // the next read shows whether it is free
    }
}

trialResult seenAfterOne(const seeprom& chip, const trialByte& trial, const firstContent& first)
{
    const auto now = readFirstAgain(chip).bytes;
    if (!now) {
        return {.seen = "after a byte was written, its reads differ or fail", .isKnown = false};
    }
    if (*now == afterOne(first, trial)) {
        return {};
    }
    return {.seen = fmt::format("a byte written at offset 0x{:X} behind one offset byte does not read back: it takes "
                                "two, or is write-protected",
                                trial.offset)};
}

/// Writes one byte, whatever signal came.
void writeByte(seeprom& chip, std::uint32_t at, unsigned char byte)
{
    const interruptsHeld calm;
    static_cast<void>(chip.write(at, {&byte, 1}));
}

/// Nothing when it can't be read.
std::optional<unsigned char> readBack(seeprom& chip, const trialByte& trial)
{
    for (int count = 0; count < mostAttempts; ++count) {
        try {
            return chip.read({trial.offset, 1}, "width proof").front();
        } catch (const failure&) {
            // a single failed read says nothing
        }
    }
    return std::nullopt;
}

trialResult seenAfterTwo(seeprom& chip, const trialByte& trial, const firstContent& first)
{
    const auto back = readBack(chip, trial);
    const auto [now, differ] = readFirstAgain(chip);
    const auto isShort = [&, &then = now](std::size_t page) { return then && *then == afterTwo(first, trial, page); };
    if (std::ranges::any_of(shortPages, isShort)) {
        return {.seen = "a byte written behind two offset bytes arrived as one behind one does"};
    }
    // a part with one offset byte reads the byte back, too: only reads behind one tell
    if ((!now && !differ) || !back) {
        return {.seen = "after a byte was written, its reads differ or fail", .isKnown = false};
    }
    if (*back == trial.wanted) {
        return {};
    }
    return {.seen = fmt::format("a byte written at offset 0x{:X} behind two offset bytes does not read back: it takes "
                                "one, or is write-protected",
                                trial.offset)};
}

/// @return false when it still differs, or when that is not known
bool putBackOnce(seeprom& part, const firstContent& first)
{
    const auto now = readFirstAgain(part).bytes;
    if (!now) {
        return false;
    }
    for (std::uint32_t at = 0; at < firstBytes; ++at) {
        if ((*now)[at] != first[at]) {
            writeByte(part, at, first[at]);
        }
    }
    return *now == first || readFirstAgain(part).bytes == first;
}

} // namespace

firstAgain readFirstAgain(const seeprom& chip)
{
    seeprom part = shortPartOf(chip);
    offsetReads reads(part.target(), chip.speedKhz());
    std::optional<firstContent> last;
    bool differ = true;
    for (int count = 0; count < mostReads; ++count) {
        auto now = readFirstOnce(reads);
        if (now && now == last) {
            return {.bytes = std::move(now)};
        }
        if (!now) {
            differ = false;
            freeBus(part);
        }
        last = std::move(now);
    }
    return {.differ = differ};
}

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

device asShortPart(const device& which)
{
    device part = which;
    part.links.back().type = findType(KEST_DEV_SEEPROM_2K);
    part.text = deviceText(part.bus, part.node, part.links);
    return part;
}

bool putBack(const seeprom& chip, const firstContent& first)
{
    seeprom part = shortPartOf(chip);
    for (int count = 0; count < mostAttempts; ++count) {
        try {
            if (putBackOnce(part, first)) {
                return true;
            }
        } catch (const failure&) {
            // the next attempt sees what arrived
        }
    }
    return false;
}

trialResult tryOut(seeprom& chip, const trialByte& trial, const firstContent& first)
{
    const signalBlock quiet;
    const interruptsHeld calm;
    trialResult result;
    try {
        writeByte(chip, trial.offset, trial.wanted);
        const bool claimsOne = offsetBytesOf(*chip.target().end().type) == 1;
        result = claimsOne ? seenAfterOne(chip, trial, first) : seenAfterTwo(chip, trial, first);
    } catch (const failure& why) {
        result.trouble = why;
    }
    if (result.trouble || !result.seen.empty()) {
        result.isBack = putBack(chip, first);
    }
    return result;
}

} // namespace kest::tools
