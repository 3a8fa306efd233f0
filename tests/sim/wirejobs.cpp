#include "tests/sim/wirejobs.h"

#include "tests/sim/decoder.h"

#include <algorithm>

namespace kest::sim::test
{

namespace
{

std::string addressed(char way, std::uint8_t address) { return std::string{" "} + way + hexOf(address >> 1U); }

} // namespace

// Those of the bus standard are 4.7, 4.0, 4.7, 4.0, 4.0, 4.7, 0.25 and 0 us at 100 kHz, 1.3, 0.6, 0.6, 0.6, 0.6, 1.3, 0.1
// and 0 us at 400 kHz, 0.5, 0.26, 0.26, 0.26, 0.26, 0.5, 0.05 and 0 us at 1 MHz.
const ClockRow clockRows[3] = {
    {100,
     100,
     {.low = 48,
      .high = 41,
      .setUpStart = 48,
      .holdStart = 41,
      .setUpStop = 41,
      .busFree = 48,
      .setUpData = 4,
      .holdData = 1}},
    {400,
     25,
     {.low = 14,
      .high = 7,
      .setUpStart = 7,
      .holdStart = 7,
      .setUpStop = 7,
      .busFree = 14,
      .setUpData = 2,
      .holdData = 1}},
    {1000,
     10,
     {.low = 6,
      .high = 4,
      .setUpStart = 4,
      .holdStart = 4,
      .setUpStop = 4,
      .busFree = 6,
      .setUpData = 2,
      .holdData = 1}},
};

void WireJobs::record(unsigned khz, const std::string& busKeys, const std::string& chips)
{
    on.reset();
    machine.reset();
    std::filesystem::remove(home.path / "machine.state");
    home.put("machine.toml", "[[bus]]\nname = \"planar\"\nspeed_khz = " + std::to_string(khz) + "\n" + busKeys + chips);
    open();
    told.clear();
    ASSERT_TRUE(machine->startWave("planar", file()));
}

void WireJobs::sends(std::uint8_t address, const Bytes& bytes)
{
    EXPECT_EQ(outcome::done, on->write(address, bytes).end);
    told += "S" + addressed('W', address) + " A" + sent(bytes) + " P ";
}

void WireJobs::reads(std::uint8_t address, std::size_t length)
{
    const Answer got = on->read(address, length);
    EXPECT_EQ(outcome::done, got.end);
    told += "S" + addressed('R', address) + " A" + received(got.data) + " P ";
}

void WireJobs::readsAt(std::uint8_t address, const Bytes& offset, std::size_t length, const std::string& between)
{
    const Answer got = on->readAt(address, offset, length);
    EXPECT_EQ(outcome::done, got.end);
    told += "S" + addressed('W', address) + " A" + sent(offset) + " " + between + addressed('R', address) + " A" +
            received(got.data) + " P ";
}

outcome WireJobs::asks(std::uint8_t address)
{
    const outcome end = on->probe(address);
    told += "S" + addressed('W', address) + (end == outcome::done ? " A P " : " N P ");
    return end;
}

std::string WireJobs::sent(const Bytes& bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += " " + hexOf(byte) + " A";
    }
    return text;
}

std::string WireJobs::received(const Bytes& bytes)
{
    std::string text = sent(bytes);
    text.back() = 'N';
    return text;
}

void WireJobs::expectTimes(const ClockRow& row) const
{
    const Timing got = timesIn(vcd());
    EXPECT_LE(row.least.low, got.low);
    EXPECT_LE(row.least.high, got.high);
    EXPECT_LE(row.least.setUpStart, got.setUpStart);
    EXPECT_LE(row.least.holdStart, got.holdStart);
    EXPECT_LE(row.least.setUpStop, got.setUpStop);
    EXPECT_LE(row.least.busFree, got.busFree);
    EXPECT_LE(row.least.setUpData, got.setUpData);
    EXPECT_LE(row.least.holdData, got.holdData);
    // and each of them has been met
    EXPECT_GT(1'000'000, std::max({got.low, got.high, got.setUpStart, got.holdStart, got.setUpStop, got.busFree,
                                   got.setUpData, got.holdData}));
    // no clock is faster than it says
    EXPECT_LE(row.period, got.low + got.high);
}

void WireJobs::expectBytes(bool bySoftware) const
{
    EXPECT_EQ(told, bytesIn(vcd()) + " ");
    if (bySoftware) {
        EXPECT_EQ(told, seenIn(file()) + " ");
    }
}

} // namespace kest::sim::test
