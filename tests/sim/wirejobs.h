/// Work on a bus that is recorded, together with what a decoder of the recording has to see.
#pragma once

#include "tests/sim/machinetest.h"
#include "tests/sim/wavereader.h"

#include <filesystem>
#include <string>

namespace kest::sim::test
{

/// Shortest times that a clock's mode asks for, in ticks, each with one to spare.
struct ClockRow {
    unsigned khz;
    long period;
    Timing least;
};
extern const ClockRow clockRows[3];

/// Verbs that note in `told` what goes over the bus, in the words of a decoder.
class WireJobs : public MachineTest
{
protected:
    /// A new machine with these chips, which records from now on.
    void record(unsigned khz, const std::string& busKeys, const std::string& chips);
    [[nodiscard]] std::filesystem::path file() const { return home.path / "planar.vcd"; }
    [[nodiscard]] std::string vcd() const { return home.text("planar.vcd"); }

    void sends(std::uint8_t address, const Bytes& bytes);
    void reads(std::uint8_t address, std::size_t length);
    /// With a repeated START, or where the adapter makes none, with a STOP.
    void readsAt(std::uint8_t address, const Bytes& offset, std::size_t length, const std::string& between = "Sr");
    outcome asks(std::uint8_t address);
    /// What goes over the bus, by hand.
    void tells(const std::string& tokens) { told += tokens.empty() ? "" : tokens + " "; }

    /// Bytes as one decodes them that all were acknowledged, each behind a blank.
    static std::string sent(const Bytes& bytes);
    /// The same with the last one not acknowledged.
    static std::string received(const Bytes& bytes);

    /// Expects the times of the recording to keep a clock's minima.
    void expectTimes(const ClockRow& row) const;
    /// Expects the recording to decode to what has been told. @param bySoftware  also by the software of decoder.h
    void expectBytes(bool bySoftware) const;

    std::string told;
};

} // namespace kest::sim::test
