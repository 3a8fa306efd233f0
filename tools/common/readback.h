/// What a write left in the chip: read back, compared, and when it differs, why.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/host/iic/pagewaits.h"
#include "tools/common/seeprom.h"

namespace kest::tools
{

/// What to try when a chip keeps its old bytes.
constexpr const char* checkProtection = "check its write-protect pin and the area that it protects";

/// What a chip shows after the pages of one write: counts from its construction on.
class pageWatch
{
public:
    explicit pageWatch(const seeprom& chip);
    [[nodiscard]] host::iic::pageWaits waits() const;

private:
    [[nodiscard]] host::iic::pageWaits sums() const;

    busName m_bus;
    std::uint8_t m_address = 0;
    bool m_watches = false; ///< a persisted copy has no pages
    host::iic::pageWaits m_before;
};

/// A write whose result is in question.
struct doubtfulWrite {
    byteRange whole; ///< what the buffers are about
    std::span<const unsigned char> wanted;
    std::span<const unsigned char> old;
    std::span<const byteRange> ranges; ///< of it, what went out
};

/// The pages of a write by what they hold afterwards.
struct pageCount {
    std::uint32_t taken = 0; ///< the new bytes
    std::uint32_t old = 0; ///< the old bytes
    std::uint32_t other = 0; ///< neither
    std::uint32_t firstOld = 0; ///< offset of the first byte that should have changed; valid when `old` is not 0
};
[[nodiscard]] pageCount countPages(const doubtfulWrite& write, std::span<const unsigned char> now,
                                   std::uint32_t pageBytes);

/// Why pages hold their old bytes.
enum class keptBecause : std::uint8_t {
    writeProtected, ///< none was taken, and the chip was never busy
    partlyProtected, ///< the chip was busy after those that were taken alone
    neverBusy, ///< not known: others were taken without a write cycle
    notSeen, ///< not known: the chip could not be asked, or a hub was asked in its place
    lost, ///< the chip was busy after more pages than it took
};
/// @param pages  `old` is not 0
[[nodiscard]] keptBecause whyKept(const pageCount& pages, const host::iic::pageWaits& waits, bool behindHub);

/// Reads back and compares. A read that differs is repeated: the read itself may be wrong. Throws a `failure` (exit
/// code 5) and makes an error entry: two reads that agree show the chip's state, two that differ a flaky line.
void verifyWritten(seeprom& chip, const doubtfulWrite& write, const pageWatch& watch);

/// After a write that failed midway: reads back and adds to `why` how many bytes are certain. A chip that refused a
/// data byte and holds nothing but the old bytes in two reads is reported as write-protected. The count that the write
/// reported proves nothing.
void explainFailedWrite(seeprom& chip, const doubtfulWrite& write, failure& why);

} // namespace kest::tools
