/// What a bus keeps in the state file besides its chips' registers.
#pragma once

#include "sim/chance.h"
#include "sim/cutread.h"
#include "sim/event.h"
#include "sim/faultrecord.h"
#include "sim/pagewrite.h"
#include "sim/statefields.h"
#include "sim/wave.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kest::sim
{

struct busState {
    pageWrite page; ///< first: its mark is the record's first byte
    std::uint64_t now = 0; ///< bus time, ns
    std::uint64_t clockStamp = 0; ///< monotonic clock at the end of the latest use in real time, 0 none
    bool sdaHeld = false, sclHeld = false;
    std::uint32_t heldBy = 0; ///< number of the fault that holds them
    std::uint32_t resetsToGo = 0; ///< resets that a hold of SDA outlasts
    std::uint64_t heldUntil = 0; ///< bus time at which a hold of SCL ends by itself, 0 none
    cutRead driven; ///< by a chip whose read was cut off
    std::uint8_t drivenBy = 0; ///< the address that was read
    bool torn = false; ///< a loss of power left pages that may not be in their images yet
    bool recording = false;
    std::uint64_t waveOrigin = 0; ///< bus time of the waveform's tick 0
    std::uint64_t waveBytes = 0; ///< length of the waveform file
    waveEnd waveAt; ///< how far the waveform has come
    std::vector<faultRecord> faults;
    /// Of faults without a seed of their own. The machine's seed gives it, so the file does not have it.
    chance choices{chance::defaultSeed};
    std::uint64_t transactions = 0; ///< that the bus has seen
    std::vector<eventRecord> events; ///< of a scenario: those under way, then the others in their order

    /// Whether a fault holds a line.
    [[nodiscard]] bool held() const { return sdaHeld || sclHeld; }
    void letLinesGo();
    /// Loads it from the state file, or stores it there.
    void exchange(stateFields& fields);

private:
    void checkHold(stateFields& fields) const;
};

constexpr std::size_t busStateBytes = 512 + 2 * mostFaults * faultBytes + mostEvents * eventBytes;
/// Bus time stops there and does not wrap; every use of the bus fails then.
constexpr std::uint64_t latestTime = std::uint64_t{1} << 62;

} // namespace kest::sim
