/// How a trace ring lies in memory and in its file. docs/trace-format.md describes the same bytes for readers.
///
/// All words are 32 bits wide in the byte order of the machine that wrote them; the header's order word shows which.
/// Shared words are accessed as 32-bit atomics, which are lock-free everywhere.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kest::host::trace
{

constexpr char ringMagic[8] = {'K', 'E', 'S', 'T', 'R', 'I', 'N', 'G'};
constexpr std::uint32_t orderMark = 0x01020304;
constexpr std::uint32_t layoutVersion = 1;

/// Threads are spread over this many lanes, so that two that trace at the same time do not share a cache line.
constexpr std::uint32_t laneCount = 8;
constexpr std::uint32_t laneHeadBytes = 128; ///< the lane's position word, alone on its pair of cache lines
constexpr std::uint32_t unitBytes = 8; ///< records begin and end at multiples of this

constexpr std::size_t minimumRingBytes = 2048;
/// A unit's index has 16 bits. All ones means frozen.
constexpr std::size_t maximumRingBytes = 0xFFFE * std::size_t{unitBytes};
constexpr std::size_t maximumNameBytes = 31;

/// First bytes of a ring.
struct ringHeader {
    char magic[8];
    std::uint32_t order;
    std::uint32_t version;
    std::uint32_t headerBytes; ///< the first lane begins here
    std::uint32_t lanes;
    std::uint32_t laneStride; ///< bytes from one lane to the next
    std::uint32_t laneUnits; ///< capacity of a lane, in units
    std::uint32_t seed; ///< start value of the records' check words
    std::uint32_t pid; ///< of the process that writes
    std::uint32_t clockOffset[2]; ///< ns to add to a record's time to get ns since 1970; high word first
    std::uint32_t created[2]; ///< ns since 1970
    char bufferName[32]; ///< NUL-terminated
    char processName[32];
    std::uint32_t reserved[2];
};
static_assert(sizeof(ringHeader) == 128 && sizeof(ringHeader) % laneHeadBytes == 0);

/// Indices of a record's words. The payload follows.
enum recordWord : std::uint32_t {
    wordTag = 0, ///< the lane's position when the record was reserved
    wordCheck = 1, ///< over all the record's other words: a torn record does not match
    wordTimeHigh = 2, ///< monotonic clock, ns
    wordTimeLow = 3,
    wordHash = 4,
    wordLine = 5,
    wordThread = 6, ///< counted from 1 in the order of the threads' first records
    wordKind = 7, ///< bits 0-15 payload bytes, bits 16-23 kind, bit 24 set when something was cut off
    recordHeadWords,
};

constexpr std::uint32_t kindText = 1; ///< format with its NUL, then the arguments
constexpr std::uint32_t kindBinary = 2; ///< sizes of header and data as given (two words), then header, then data
constexpr std::uint32_t kindCutFlag = 1u << 24;

constexpr std::size_t recordHeadBytes = recordHeadWords * sizeof(std::uint32_t);
constexpr std::size_t maximumRecordBytes = 1024;
constexpr std::size_t maximumPayloadBytes = maximumRecordBytes - recordHeadBytes;
constexpr std::size_t maximumTextBytes = 256; ///< of one string argument and of a format, with its NUL

static_assert(maximumRecordBytes <= minimumRingBytes && maximumRecordBytes % unitBytes == 0);

constexpr std::uint32_t roundedUp(std::uint32_t value, std::uint32_t multiple)
{
    return (value + multiple - 1) / multiple * multiple;
}

/// Bytes that a record with this payload takes up.
constexpr std::uint32_t recordBytes(std::uint32_t payloadBytes)
{
    return roundedUp(static_cast<std::uint32_t>(recordHeadBytes) + payloadBytes, unitBytes);
}

/// A position: the lap number in the high half, the index of the next free unit in the low half. A frozen lane takes no
/// more records.
constexpr std::uint32_t positionIndex(std::uint32_t position) { return position & 0xFFFF; }
constexpr std::uint32_t positionLap(std::uint32_t position) { return position >> 16; }
constexpr std::uint32_t frozenPosition = 0xFFFFFFFF;

/// The position `units` further on. Laps count modulo 2^16.
constexpr std::uint32_t advanced(std::uint32_t position, std::uint32_t units, std::uint32_t laneUnits)
{
    const std::uint32_t index = positionIndex(position) + units;
    return index < laneUnits ? position + units : ((positionLap(position) + 1) << 16 | (index - laneUnits));
}

/// Running check over a record's words. The sum of sums finds a torn record that has the right words in
/// the wrong places.
class checkSum
{
public:
    explicit constexpr checkSum(std::uint32_t seed) : m_sum(seed) {}
    constexpr void add(std::uint32_t word)
    {
        m_sum += word;
        m_sumOfSums += m_sum;
    }
    [[nodiscard]] constexpr std::uint32_t value() const { return m_sum ^ (m_sumOfSums << 16 | m_sumOfSums >> 16); }

private:
    std::uint32_t m_sum;
    std::uint32_t m_sumOfSums = 0;
};

} // namespace kest::host::trace
