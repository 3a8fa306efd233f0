#include "tools/common/shortpart.h"

#include <algorithm>

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
        static_cast<void>(part.read({0, 1}, step));
    } catch (const failure&) {
        // the next read shows whether it is free
    }
}

/// @return whether all bytes are what they were
bool putBackOnce(seeprom& part, const firstContent& first)
{
    const firstAgain now = readFirstAgain(part);
    if (!now.bytes || now.bytes == first) {
        return now.bytes == first;
    }
    for (std::size_t at = 0; at < firstBytes; ++at) {
        if (now.bytes->at(at) != first.at(at)) {
            const interruptsHeld calm;
            static_cast<void>(part.write(static_cast<std::uint32_t>(at), {&first[at], 1}));
        }
    }
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
