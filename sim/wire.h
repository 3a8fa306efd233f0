/// The two lines of a bus: bit times, and the waveform when one is recorded.
#pragma once

#include "sim/signals.h"
#include "sim/wave.h"

#include <cstdint>

namespace kest::sim
{

/// Moves bus time on by what a controller and its chips do on the lines: 1 bit for a START, repeated START or STOP, 9
/// for a byte with its acknowledge. A bit is a clock low for its first half and high for its second; SDA moves at a
/// quarter of it.
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
    /// One clock pulse with SDA as the chips leave it.
    void pulse(bool sda);
    /// The controller lets go, and leaves the lines as others hold them.
    void leave(bool scl, bool sda);

private:
    void bit(bool level);
    [[nodiscard]] std::uint64_t quarter(unsigned n) const { return clock.now + clock.bitLasting * n / 4; }
    void scl(std::uint64_t now, bool level);
    void sda(std::uint64_t now, bool level);
    void pass() { clock.now += clock.bitLasting; }

    waveText* m_wave;
    bool m_busTaken = false; ///< between a START and a STOP: SCL is low
};

} // namespace kest::sim
