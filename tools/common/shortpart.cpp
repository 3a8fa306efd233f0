#include "tools/common/shortpart.h"

#include <algorithm>
#include <span>

#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/offsetreads.h"
#include "tools/common/signalblock.h"
#include "tools/common/widthbytes.h"

namespace kest::tools
{
namespace
{

constexpr std::size_t firstBytes = widthReads::firstBytes;
// two that agree, and some that fail or differ
constexpr int mostReads = 6;
constexpr int mostAttempts = 3;
constexpr const char* step = "width proof";

seeprom shortPartOf(const seeprom& chip)
{
    return {asShortPart(chip.target()),
            {.mode = accessMode::hardware,
             .speedKhz = chip.speedKhz(),
             .writeCycleMs = chip.writeCycleMs(),
             .force = true}};
}

widthQuestion questionFor(offsetReads& reads)
{
    return {.read = [&reads](std::span<const std::uint8_t> offset,
                             std::span<std::uint8_t> into) { return reads.read(offset, into); },
            .readOther = [&reads](std::uint8_t address,
                                  std::span<std::uint8_t> into) { return reads.readOther(address, into); },
            .mostBytes = std::min<std::size_t>(firstBytes, reads.mostBytes())};
}

/// Nothing when a read fails.
std::optional<firstContent> readFirstOnce(offsetReads& reads)
{
    const widthQuestion question = questionFor(reads);
    const auto hub = reads.holdHub();
    if (hub && hub->error() != 0) {
        return std::nullopt;
    }
    widthReads::firstRead whole{};
    return widthReads(question).readWhole(whole) ? std::optional<firstContent>({whole.begin(), whole.end()})
                                                 : std::nullopt;
}

endFinding findEndOnce(offsetReads& reads, std::uint8_t address, const firstContent& now, std::size_t start)
{
    const widthQuestion question = questionFor(reads);
    const auto hub = reads.holdHub();
    if (hub && hub->error() != 0) {
        return {.readFailed = true};
    }
    widthReads::firstRead known{};
    std::ranges::copy(now, known.begin());
    widthReads across(question);
    across.know(known);
    return findPartEnd(across, address, start);
}

/// A part whose read was cut off can hold SDA. A read by the library frees the bus then.
void freeBus(seeprom& part)
{
    const interruptsHeld calm;
    try {
        static_cast<void>(part.read({0, 1}, step));
    } catch (const failure&) {
        // the next read shows whether it is free
    }
}

std::vector<std::size_t> differingOffsets(const firstContent& now, const firstContent& first)
{
    std::vector<std::size_t> offsets;
    for (std::size_t at = 0; at < firstBytes; ++at) {
        if (now.at(at) != first.at(at)) {
            offsets.push_back(at);
        }
    }
    return offsets;
}

void writeBack(seeprom& part, const firstContent& first, std::span<const std::size_t> offsets)
{
    for (const std::size_t at : offsets) {
        const interruptsHeld calm;
        static_cast<void>(part.write(static_cast<std::uint32_t>(at), {&first.at(at), 1}));
    }
}

/// Sends the first byte that differs. @return whether that has changed this one alone
bool takesOne(seeprom& part, const firstContent& now, const firstContent& first, std::size_t at)
{
    firstContent expected = now;
    expected.at(at) = first.at(at);
    writeBack(part, first, {&at, 1});
    return readFirstAgain(part).bytes == expected;
}

/// Where many bytes differ, one goes first: a part with two offset bytes can give others without a change, and takes
/// none. Each write waits for a write cycle.
/// @return whether all bytes are what they were
bool putBackOnce(seeprom& part, const firstContent& first)
{
    constexpr std::size_t many = 8;
    const firstAgain now = readFirstAgain(part);
    if (!now.bytes) {
        return false;
    }
    const std::vector<std::size_t> offsets = differingOffsets(*now.bytes, first);
    if (offsets.empty()) {
        return true;
    }
    if (offsets.size() > many && !takesOne(part, *now.bytes, first, offsets.front())) {
        return false;
    }
    writeBack(part, first, offsets);
    return readFirstAgain(part).bytes == first;
}

} // namespace

device asShortPart(const device& which)
{
    device part = which;
    part.links.back().type = findType(KEST_DEV_SEEPROM_2K);
    part.text = deviceText(part.bus, part.node, part.links);
    return part;
}

void readBehindOne(const seeprom& chip) { static_cast<void>(shortPartOf(chip).read({0, 1}, step)); }

firstAgain readFirstAgain(const seeprom& chip)
{
    const signalBlock quiet;
    seeprom part = shortPartOf(chip);
    offsetReads reads(part.target(), chip.speedKhz());
    std::optional<firstContent> last;
    bool unlike = true;
    for (int count = 0; count < mostReads; ++count) {
        auto now = readFirstOnce(reads);
        if (now && now == last) {
            return {.bytes = std::move(now)};
        }
        if (!now) {
            freeBus(part);
        }
        unlike = unlike && now && (count == 0 || !areAlike(*last, *now));
        last = std::move(now);
    }
    return {.unlike = unlike};
}

std::optional<partEnd> findShortEnd(const seeprom& chip, const firstContent& now, std::size_t start)
{
    const signalBlock quiet;
    seeprom part = shortPartOf(chip);
    offsetReads reads(part.target(), chip.speedKhz());
    std::optional<endFinding> last;
    for (int count = 0; count < mostReads; ++count) {
        const endFinding found = findEndOnce(reads, part.target().end().address, now, start);
        if (found == last) {
            return found.end;
        }
        if (found.readFailed) {
            freeBus(part);
        }
        last = !found.readFailed && found.isSteady ? std::optional(found) : std::nullopt;
    }
    return std::nullopt;
}

firstChange changeOf(const firstAgain& now, const firstContent& first, const firstOffsets& offsets)
{
    if (!now.bytes) {
        return firstChange::notKnown;
    }
    for (std::size_t at = 0; at < firstBytes; ++at) {
        if (now.bytes->at(at) != first.at(at) && !offsets.contains(at)) {
            return firstChange::elsewhere;
        }
    }
    return *now.bytes == first ? firstChange::none : firstChange::there;
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

} // namespace kest::tools
