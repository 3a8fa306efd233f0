// Bits that last longer than their clock, and transfers that their controller ends: times and bytes in recorded
// waveforms.
#include "sim/bittiming.h"
#include "tests/sim/decoder.h"
#include "tests/sim/wirejobs.h"

namespace kest::sim::test
{

namespace
{

/// Jobs at each clock, with chips that stretch it: a 24C02 at 0xA0 by 30 us a byte, a sensor by 50 us, a 24C02 behind
/// the hub by 40 us. The 24C256 at 0xA2 does not.
class BitTiming : public WireJobs
{
protected:
    void recordWith(const ClockRow& row, const std::string& adapter)
    {
        home.put("a.bin", std::string(256, '\xFF'));
        const Bytes counted = counting(256);
        home.put("b.bin", std::string(counted.begin(), counted.end()) + std::string(32768 - 256, '\xFF'));
        home.put("c.bin", std::string(counted.begin(), counted.end()));
        const std::string fast = "max_khz = 1000\n";
        record(row.khz, adapter.empty() ? "" : "adapter = { " + adapter + " }\n",
               chip("24C02", "0xA0", fast + "stretch_us = 30\nimage = \"a.bin\"") +
                   chip("24C256", "0xA2", "image = \"b.bin\"") + chip("LM75", "0x92", fast + "stretch_us = 50") +
                   chip("HUB922", "0x80", fast) +
                   chip("24C02", "0xA4", "hub = 0x80\nport = 2\nstretch_us = 40\nimage = \"c.bin\""));
    }
    void expectGood(const ClockRow& row) const
    {
        expectTimes(row);
        expectBytes(software);
    }
    /// The longest time that SCL was low, less the low part of a bit, in microseconds.
    [[nodiscard]] double longestHoldUs(const ClockRow& row) const
    {
        const long lowPart = row.khz == 100 ? 50 : row.period * 3 / 5;
        return static_cast<double>(timesIn(vcd()).longestLow - lowPart) / 10;
    }

    const bool software = hasDecoder();
};

// SDA is 30 us and more away from the clock then, and nothing else changes.
TEST_F(BitTiming, AStretchedClockStaysLowForSoLong)
{
    for (const ClockRow& row : clockRows) {
        SCOPED_TRACE(row.khz);
        recordWith(row, "");
        sends(0xA2, {0x02, 0x00, 0x12});
        on->idleMs(10);
        readsAt(0xA2, {0x00, 0x21}, 2);
        EXPECT_EQ(0, longestHoldUs(row));
        sends(0xA0, {0x10, 0xAB, 0xCD});
        EXPECT_EQ(30, longestHoldUs(row));
        on->idleMs(10);
        readsAt(0xA0, {0x10}, 2);
        EXPECT_EQ(30, longestHoldUs(row));
        // 25 degrees
        readsAt(0x92, {0}, 2);
        EXPECT_TRUE(told.ends_with("S W49 A 00 A Sr R49 A 19 A 00 N P ")) << told;
        EXPECT_EQ(50, longestHoldUs(row));
        expectGood(row);
    }
}

// Ahead of the status byte the hub needs 29.4 bits of its own 400 kHz, and the chip stretches two bytes of them.
TEST_F(BitTiming, AChipThatStretchesBehindAHubMakesTheHubHoldTheClock)
{
    for (const ClockRow& row : clockRows) {
        SCOPED_TRACE(row.khz);
        recordWith(row, "");
        sends(0x80, {2, 0xA4, 0x10, 0x5A});
        EXPECT_EQ(0, longestHoldUs(row));
        on->idleMs(10);
        readsAt(0x80, {2, 0xA4, 0x10}, 3);
        EXPECT_TRUE(told.ends_with("S W40 A 02 A A4 A 10 A Sr R40 A 00 A 5A A 11 N P ")) << told;
        EXPECT_EQ(29.4 * 2.5 + 80, longestHoldUs(row));
        expectGood(row);
    }
}

TEST_F(BitTiming, AClockStretchedBeyondTheAdaptersLimitIsFollowedByAStop)
{
    for (const ClockRow& row : clockRows) {
        SCOPED_TRACE(row.khz);
        recordWith(row, "stretch_limit_us = 29");
        EXPECT_EQ(outcome::sclHeld, on->write(0xA0, {0x10, 0xAB}).end);
        tells("S W50 A P");
        // erased: the bit that comes next is a 1
        EXPECT_EQ(outcome::sclHeld, on->read(0xA0, 3).end);
        tells("S R50 A P");
        EXPECT_EQ(outcome::sclHeld, on->readAt(0x80, {2, 0xA4, 0x10}, 1).end);
        // the hub's status is a 0: it holds SDA until the clocks of a reset have read it
        EXPECT_EQ(outcome::done, on->planar->reset());
        tells("S W40 A 02 A A4 A 10 A Sr R40 A 00 N P");
        readsAt(0xA2, {0x00, 0x21}, 2);
        expectGood(row);
        EXPECT_EQ(Bytes(256, 0xFF), home.content("a.bin"));
    }
}

// 1 ms is 100, 400 or 1000 bits. Ahead of the data a write has 28 of them, a read 38 and the high part of its repeated
// START; each byte has nine. The byte under way at the end is the last one.
TEST_F(BitTiming, ATransferThatTakesTooLongEndsInAStopBehindItsLastByte)
{
    const std::size_t written[] = {9, 42, 109}, read[] = {7, 41, 107};
    for (const ClockRow& row : clockRows) {
        SCOPED_TRACE(row.khz);
        const auto index = static_cast<std::size_t>(&row - clockRows);
        recordWith(row, "timeout_ms = 1");
        EXPECT_EQ(outcome::timedOut, on->readAt(0xA2, {0x00, 0x00}, 200).end);
        tells("S W51 A 00 A 00 A Sr R51 A" + received(counting(read[index])) + " P");
        EXPECT_EQ(outcome::timedOut, on->write(0xA2, Bytes{0x01, 0x00} + counting(200, 0x30)).end);
        tells("S W51 A 01 A 00 A" + sent(counting(written[index], 0x30)) + " P");
        on->idleMs(10);
        readsAt(0xA2, {0x01, 0x00}, 1);
        expectGood(row);
    }
}

// The hub passes on what it took. Ahead of the data a write has 37 bits, a read 47 and a high part, in which the hub
// holds SCL for 153.5 us; 62.5 us more ahead of each byte of data behind the status.
TEST_F(BitTiming, ATransferBehindAHubThatTakesTooLongEndsInTheSameWay)
{
    const std::size_t written[] = {8, 41, 108}, read[] = {2, 9, 12};
    for (const ClockRow& row : clockRows) {
        SCOPED_TRACE(row.khz);
        const auto index = static_cast<std::size_t>(&row - clockRows);
        recordWith(row, "timeout_ms = 1");
        EXPECT_EQ(outcome::timedOut, on->readAt(0x80, {2, 0xA4, 0x10}, 200).end);
        tells("S W40 A 02 A A4 A 10 A Sr R40 A 00 A" + received(counting(read[index], 0x10)) + " P");
        EXPECT_EQ(outcome::timedOut, on->write(0x80, Bytes{2, 0xA4, 0x20} + counting(200, 0x30)).end);
        tells("S W40 A 02 A A4 A 20 A" + sent(counting(written[index], 0x30)) + " P");
        on->idleMs(20);
        reads(0x80, 1);
        EXPECT_TRUE(told.ends_with("S R40 A 00 N P ")) << told;
        expectGood(row);
    }
}

TEST_F(BitTiming, AStopBetweenMessagesLeavesTheBusFreeForALowPart)
{
    for (const ClockRow& row : clockRows) {
        SCOPED_TRACE(row.khz);
        recordWith(row, "stop_between = true");
        readsAt(0xA2, {0x00, 0x21}, 2, "P S");
        readsAt(0x92, {0}, 2, "P S");
        EXPECT_EQ("S W51 A 00 A 21 A P S R51 A 21 A 22 N P S W49 A 00 A P S R49 A 19 A 00 N P ", told);
        // the hub passes the header on, and is busy
        EXPECT_EQ(outcome::addressNotAcknowledged, on->readAt(0x80, {2, 0xA4, 0x10}, 3).end);
        tells("S W40 A 02 A A4 A 10 A P S R40 N P");
        on->idleMs(10);
        reads(0x80, 1);
        expectGood(row);
        EXPECT_EQ(std::string::npos, bytesIn(vcd()).find("Sr"));
    }
}

} // namespace

} // namespace kest::sim::test
