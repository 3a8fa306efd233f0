/// What transfers with a device have in common: settings, reports, positions, and what fits into a message.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/host/iic/bus.h"
#include "platform/mern.h"

namespace kest::host::iic
{

class addressLocks;

/// How a device is spoken to.
struct transferSettings {
    std::uint8_t target = 0; ///< 8-bit form; 0 none, which no transfer accepts
    std::uint32_t position = 0;
    std::uint16_t offsetLength = 0; ///< 0-4; 3 and 4 go through a hub
    std::uint32_t pageSize = 0; ///< a power of two, or 0 for none
    std::uint32_t writeCycleMs = 0;
    std::uint32_t busyWaitMs = 0;
    transferPace pace; ///< its time-out is that of the whole transfer
    addressLocks* locks = nullptr; ///< of the handle; null: other writers are not known
};

constexpr bool throughHub(const transferSettings& settings) { return settings.offsetLength >= 3; }

/// Why a device did not acknowledge, for first-failure data: after a page was written to it, before that, or not asked
/// because another handle wrote to it for the whole wait.
constexpr const char* silenceNone = "";
constexpr const char* silenceBusy = "busy";
constexpr const char* silenceAbsent = "absent";
constexpr const char* silenceOtherWriter = "other writer";

/// What an adapter lacks for a transfer, for first-failure data.
constexpr const char* lacksNothing = "";
constexpr const char* lacksRepeatedStart = "a repeated START, which a read through a hub needs";
constexpr const char* lacksCall = "a call that moves such bytes";
constexpr const char* lacksLength = "messages and transactions as long as this transfer needs";

struct transferReport {
    std::size_t moved = 0;
    int error = 0; ///< errno; 0 when all was moved
    const char* silence = silenceNone;
    const char* lacks = lacksNothing;
};

/// How long a transfer waits while another handle writes pages, ms.
std::uint32_t patienceMs(const transferSettings& settings);

/// Where the position is behind `moved` bytes. Only the low 8 bits count up for offset lengths 1 and 3, the low 16 for
/// 2 and 4; the rest names port and device of a hub.
std::uint32_t positionPlus(const transferSettings& settings, std::size_t moved);

/// Where the position is after a whole transfer of `length` bytes.
std::uint32_t positionAfter(const transferSettings& settings, direction way, std::size_t length);

/// The bytes of an offset, most significant first.
class offsetBytes
{
public:
    offsetBytes(std::uint32_t position, std::size_t count);
    std::span<std::uint8_t> span() { return std::span(m_bytes).first(m_count); }

private:
    std::array<std::uint8_t, MERN_OFFSET_LENGTH_MAX> m_bytes{};
    std::size_t m_count;
};

/// What a message holds at least: a byte of data behind an offset, or behind a hub's status. A plain message is never
/// cut.
std::size_t leastBytes(const transferSettings& settings, direction way);

/// Cuts down what is sent at once, after an adapter refused `refused` as too long.
/// @return false when there is nothing left to cut
bool takeLess(transferLimits& takes, const transferSettings& settings, std::span<const segment> refused);

/// Wire time of a transaction without clock stretching, ns.
std::uint64_t wireNsOf(std::span<const segment> segments, std::uint64_t clockHz);

/// Data bytes that a transaction may have within a wire time, at least one: of a read with messages of `messageBytes`,
/// or of a write.
std::size_t bytesInTime(std::uint64_t wireNs, std::uint64_t clockHz, const transferSettings& settings, direction way,
                        std::size_t messageBytes);

/// Cuts down what is sent at once, after the adapter gave a transaction up: when it waited too short a time for this
/// one, with the clock stretching of a hub.
/// @param lastedNs  until the adapter gave it up
/// @return false when a shorter one would not end either, or there is none
bool takeShorter(transferLimits& takes, const transferSettings& settings, std::span<const segment> givenUp,
                 std::uint64_t lastedNs, std::uint64_t clockHz);

/// What an adapter lacked for a transaction that ended so.
const char* lackOf(outcome end);

/// Whether a transfer can be made as asked, before anything is sent. @return its `error` is 0, EINVAL or ENOSYS
transferReport checkTransfer(const transferSettings& settings, const transferLimits& limits, direction way,
                             std::size_t length);

} // namespace kest::host::iic
