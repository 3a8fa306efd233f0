/// SEEPROMs as the tools read and write them: checked ranges, and reads whose bytes are certain.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/common/accessmode.h"
#include "tools/common/attributes.h"
#include "tools/common/device.h"
#include "tools/common/entryfailure.h"

namespace kest::tools
{

using byteVector = std::vector<unsigned char>;

struct accessOptions {
    accessMode mode = accessMode::hardware;
    std::uint32_t speedKhz = 0; ///< 0 the library's default
    std::uint32_t writeCycleMs = 0; ///< 0 the library's default
    unsigned votes = 1; ///< reads that each byte is voted from
    bool force = false; ///< the hardware also where the device table has another type
};

/// Once begun, so many pages are written whatever happens.
constexpr std::uint32_t pagesAtOnce = 16;

struct byteRange {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
};

/// Checks offset and length against the capacity of the device's type. Without a length the range ends at the end of
/// the device. Throws a `failure` (exit code 2) that says which of the two is wrong.
[[nodiscard]] byteRange checkedRange(const device& which, std::uint64_t offset, std::optional<std::uint64_t> length);

/// One SEEPROM. Its functions throw a `failure`.
class seeprom
{
public:
    /// Settles once whether the hardware or the copy serves. Throws (exit code 2) for a device that is no SEEPROM, or
    /// a chain that no transfer can serve; and as refuseOtherType() for hardware.
    seeprom(device which, const accessOptions& options);

    /// As checkedRange(). Also throws (exit code 2) for an offset other than 0 on hardware that is sent no offset.
    [[nodiscard]] byteRange range(std::uint64_t offset, std::optional<std::uint64_t> length) const;

    /// Reads bytes that are certain: behind a hub until two reads in a row agree, with votes by majority. Offsets at
    /// which the votes differed are reported on standard error. Between pieces it looks for signals, and throws an
    /// interruption() after one.
    /// @param step  what is being done, for messages and progress: "read"
    [[nodiscard]] byteVector read(const byteRange& range, const std::string& step);
    /// Offsets at which the reads of a vote differed, so far.
    [[nodiscard]] const std::vector<std::uint32_t>& wavered() const { return m_wavered; }
    /// Bytes for which a vote did not take all reads, so far.
    [[nodiscard]] std::uint64_t outvoted() const { return m_outvoted; }

    /// Writes bytes as they are, in groups of at most `pagesAtOnce` pages. Between groups it looks for signals.
    /// @return the number of bytes written; fewer than there are when a signal came
    [[nodiscard]] std::uint32_t write(std::uint32_t offset, std::span<const unsigned char> bytes);

    [[nodiscard]] const device& target() const { return m_device; }
    /// The bus speed of its transfers, kHz.
    [[nodiscard]] std::uint32_t speedKhz() const { return m_attributes[KEST_ATTR_BUS_SPEED]; }
    /// Bytes that one write cycle changes.
    [[nodiscard]] std::uint32_t pageBytes() const;
    /// Whether the hardware serves it; else its persisted copy does.
    [[nodiscard]] bool touchesHardware() const { return m_options.mode != accessMode::file; }
    /// The wait after the last page of a write, ms.
    [[nodiscard]] std::uint32_t writeCycleMs() const { return m_attributes[KEST_ATTR_WRITE_CYCLE]; }
    /// Whether its bytes are read once alone: neither by votes, nor again as behind a hub, nor from a copy.
    [[nodiscard]] bool readsOnce() const { return touchesHardware() && m_options.votes == 1 && !m_device.behindHub(); }
    /// Reports on standard error where two reads of the same bytes differed, and remembers it.
    /// @param offset  of their first byte
    void noteWavering(std::uint32_t offset, const byteVector& one, const byteVector& other);

private:
    [[nodiscard]] byteVector readOnce(const byteRange& range, const std::string& step);
    [[nodiscard]] byteVector readPieceAgreed(const byteRange& piece, const std::string& step);
    [[nodiscard]] byteVector readAgreed(const byteRange& range, const std::string& step);
    [[nodiscard]] byteVector readVoted(const byteRange& range, const std::string& step);
    void tellWavered(const std::vector<std::uint32_t>& offsets, const std::string& head);
    [[nodiscard]] failure failed(const toolEntry& entry, const std::string& step, std::string what,
                                 std::string tryThis) const;
    void readPiece(const byteRange& range, const std::string& step, byteVector& bytes);
    void writePiece(const byteRange& range, const unsigned char* bytes);
    [[nodiscard]] std::uint32_t groupBytes() const;

    device m_device;
    accessOptions m_options;
    attributeRecord m_attributes;
    std::vector<std::uint32_t> m_wavered;
    std::uint64_t m_outvoted = 0;
};

} // namespace kest::tools
