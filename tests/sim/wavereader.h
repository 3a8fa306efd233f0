/// What a recorded waveform shows: its times, and the bytes that went over the bus.
#pragma once

#include <string>

namespace kest::sim::test
{

/// The shortest of each time in a waveform, in ticks of 100 ns.
struct Timing {
    long low = none, high = none, setUpStart = none, holdStart = none, setUpStop = none, busFree = none,
         setUpData = none, holdData = none;
    long longestLow = 0; ///< a stretched clock
    static constexpr long none = 1'000'000'000;
};

/// Measures a waveform, edge by edge. @param vcd  the recording's text
Timing timesIn(const std::string& vcd);

/// The bytes as the bus standard defines them, in the words of seenIn() (decoder.h). Unlike the software there, it sees
/// START and STOP at any bit.
std::string bytesIn(const std::string& vcd);

/// A byte in two hexadecimal digits.
std::string hexOf(unsigned byte);

} // namespace kest::sim::test
