/// The two lines of a bus: bit times, and the waveform when one is recorded.
#pragma once

#include "sim/bittiming.h"
#include "sim/signals.h"
#include "sim/wave.h"

#include <cstdint>

namespace kest::sim
{

/// Moves bus time on by what a controller and its chips do on the lines: 1 bit for a START or STOP, 9 for a byte with
/// its acknowledge, and a bit and a high part for a repeated START. See bittiming.h for the parts of a bit.
class wire
{
public:
    /// @param recorded  null: nothing is recorded
    wire(std::uint64_t now, std::uint64_t bitNs, waveText* recorded) : clock{now, bitNs}, m_wave{recorded} {}

    busClock clock;

    void start();
    void stop();
    void byte(std::uint8_t value, bool acknowledged);
    /// The first `bits` bits of a byte.
    void cutByte(std::uint8_t value, unsigned bits);
    /// The high part before the first clock of a recovery: SDA may just have moved.
    void beforeClocks() { clock.now += highNs(); }
    /// One clock pulse with SDA as the chips leave it.
    void pulse(bool sda);
    /// The controller lets go, and SDA stays low.
    void leaveSdaHeld();
    /// SCL stays low, or falls when the bus was free, until the controller gives up.
    /// @param patienceNs  how long that takes, at least a bit
    /// @param level       of SDA, as the chips leave it, on a bus that was taken
    void leaveSclHeld(std::uint64_t patienceNs, bool level = true);

private:
    void bit(bool level);
    [[nodiscard]] std::uint64_t lowNs() const { return lowPartNs(clock.bitLasting); }
    [[nodiscard]] std::uint64_t highNs() const { return highPartNs(clock.bitLasting); }
    [[nodiscard]] std::uint64_t middleOfLow() const { return clock.now + lowNs() / 2; }
    [[nodiscard]] std::uint64_t endOfLow() const { return clock.now + lowNs(); }
    [[nodiscard]] std::uint64_t endOfBit() const { return clock.now + clock.bitLasting; }
    void scl(std::uint64_t now, bool level);
    void sda(std::uint64_t now, bool level);
    void pass() { clock.now += clock.bitLasting; }

    waveText* m_wave;
    bool m_busTaken = false; ///< between a START and a STOP: SCL is low
};

} // namespace kest::sim
