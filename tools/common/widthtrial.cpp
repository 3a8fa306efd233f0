#include "tools/common/widthtrial.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>

#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/signalblock.h"
#include "tools/common/widthproof.h"

namespace kest::tools
{
namespace
{

constexpr std::size_t firstBytes = widthReads::firstBytes;
// pages of parts with one offset byte; a ferroelectric part has none
constexpr std::array<std::size_t, 4> shortPages{4, 8, 16, firstBytes};
constexpr int mostReads = 4;

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

std::string seenAfterOne(offsetReads& reads, const trialByte& trial, const firstContent& first)
{
    const auto now = readFirstAgain(reads);
    if (!now) {
        return "after a byte was written, its reads differ";
    }
    return *now == afterOne(first, trial) ? ""
                                          : fmt::format("a byte written at offset 0x{:X} behind one offset byte does "
                                                        "not read back: it takes two, or is write-protected",
                                                        trial.offset);
}

/// Writes one byte, whatever signal came.
void writeByte(seeprom& chip, std::uint32_t at, unsigned char byte)
{
    const interruptsHeld calm;
    static_cast<void>(chip.write(at, {&byte, 1}));
}

/// Nothing when it can't be read.
byteVector readBack(seeprom& chip, const trialByte& trial)
{
    try {
        return chip.read({trial.offset, 1}, "width proof");
    } catch (const failure&) {
        return {};
    }
}

std::string seenAfterTwo(seeprom& chip, offsetReads& reads, const trialByte& trial, const firstContent& first)
{
    const byteVector back = readBack(chip, trial);
    const auto now = readFirstAgain(reads);
    const auto isShort = [&](std::size_t page) { return now && *now == afterTwo(first, trial, page); };
    if (std::ranges::any_of(shortPages, isShort)) {
        return "a byte written behind two offset bytes arrived as one behind one does";
    }
    return back == byteVector{trial.wanted}
               ? ""
               : fmt::format("a byte written at offset 0x{:X} behind two offset bytes does "
                             "not read back: it takes one, or is write-protected",
                             trial.offset);
}

} // namespace

std::optional<firstContent> readFirstAgain(offsetReads& reads)
{
    std::optional<firstContent> last;
    const std::size_t piece = std::min<std::size_t>(firstBytes, reads.mostBytes());
    for (int count = 0; count < mostReads; ++count) {
        widthReads::firstRead whole{};
        const widthQuestion question{
            .read = [&reads](std::span<const std::uint8_t> offset,
                             std::span<std::uint8_t> into) { return reads.read(offset, into); },
            .readOther = {},
            .mostBytes = piece};
        widthReads once(question);
        if (!once.readWhole(whole)) {
            return std::nullopt;
        }
        firstContent now(whole.begin(), whole.end());
        if (last == now) {
            return now;
        }
        last = std::move(now);
    }
    return std::nullopt;
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

bool putBack(const seeprom& chip, const firstContent& first)
{
    device part = chip.target();
    part.links.back().type = findType(KEST_DEV_SEEPROM_2K);
    part.text = deviceText(part.bus, part.node, part.links);
    offsetReads reads(part, chip.speedKhz());
    const auto now = readFirstAgain(reads);
    if (!now) {
        return false;
    }
    const accessOptions access{.mode = accessMode::hardware, .speedKhz = chip.speedKhz(), .force = true};
    seeprom asShort(part, access);
    for (std::uint32_t at = 0; at < firstBytes; ++at) {
        if ((*now)[at] != first[at]) {
            writeByte(asShort, at, first[at]);
        }
    }
    return readFirstAgain(reads) == first;
}

std::string tryOut(seeprom& chip, const trialByte& trial, const firstContent& first)
{
    const signalBlock quiet;
    offsetReads reads(chip.target(), chip.speedKhz());
    const interruptsHeld calm;
    writeByte(chip, trial.offset, trial.wanted);
    const bool claimsOne = offsetBytesOf(*chip.target().end().type) == 1;
    std::string seen = claimsOne ? seenAfterOne(reads, trial, first) : seenAfterTwo(chip, reads, trial, first);
    if (seen.empty()) {
        return seen;
    }
    return seen + (putBack(chip, first) ? "; it holds its old bytes" : "; whether it holds its old bytes is not known");
}

} // namespace kest::tools
