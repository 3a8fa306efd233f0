#include "sim/controller.h"
#include "tests/sim/machinetest.h"

#include <initializer_list>
#include <vector>

namespace kest::sim::test
{

namespace
{

class Controller : public MachineTest
{
protected:
    /// A 24C256 that counts up, an LM75, and a hub with a 24C02 at port 3.
    void powerWith(const std::string& adapter)
    {
        home.put("planar.bin", std::string(32768, '\0'));
        home.put("card.bin", std::string(256, '\x33'));
        power("adapter = { " + adapter + " }\n" +
              chip("24C256", "0xA0", "image = \"planar.bin\"\nwrite_cycle_ms = 3.5") + chip("LM75", "0x90") +
              chip("HUB922", "0x80") + chip("24C02", "0xA2", "hub = 0x80\nport = 3\nimage = \"card.bin\""));
    }
    [[nodiscard]] Bytes stored(std::size_t length) const
    {
        const Bytes all = home.content("planar.bin");
        return {all.begin(), all.begin() + static_cast<std::ptrdiff_t>(length)};
    }
};

/// One message: its direction and length.
struct Message {
    direction way;
    std::size_t length;
};

/// Whether an adapter takes messages to one address.
bool takesAll(const adapterKind& kind, const std::vector<Message>& messages)
{
    Bytes bytes(100);
    std::vector<segment> segments;
    for (const Message& each : messages) {
        segments.push_back({0xA0, each.way, std::span(bytes).first(each.length), false});
    }
    return takes(kind, segments);
}

TEST_F(Controller, RefusesLongMessagesBeforeTheirStart)
{
    powerWith("message_bytes = 4");
    EXPECT_EQ(outcome::refused, on->write(0xA0, {0, 0, 1, 2, 3}).end);
    EXPECT_EQ(outcome::refused, on->readAt(0xA0, {0, 0}, 5).end);
    EXPECT_EQ(0U, on->planar->busTimeNs());
    EXPECT_EQ(outcome::done, on->store(0xA0, {0, 0, 1, 2}));
    EXPECT_EQ((Bytes{1, 2, 0, 0}), on->readAt(0xA0, {0, 0}, 4).data);
}

TEST_F(Controller, RefusesMoreMessagesThanItTakes)
{
    powerWith("messages = 1");
    EXPECT_EQ(outcome::refused, on->readAt(0xA0, {0, 0}, 1).end);
    EXPECT_EQ(0U, on->planar->busTimeNs());
    EXPECT_EQ(outcome::done, on->write(0xA0, {0, 0}).end);
    EXPECT_EQ(outcome::done, on->read(0xA0, 1).end);
    EXPECT_TRUE(takesAll({.messages = 2}, {{direction::write, 2}, {direction::read, 9}}));
    EXPECT_FALSE(takesAll({.messages = 2}, {{direction::write, 2}, {direction::read, 9}, {direction::read, 9}}));
}

TEST(SmbusController, TakesWhatIsACall)
{
    constexpr direction w = direction::write, r = direction::read;
    struct Row {
        std::vector<Message> messages;
        bool byWords, byBlocks;
    };
    const Row rows[] = {
        {{{w, 0}}, true, true}, // the address alone
        {{{w, 1}}, true, true},
        {{{r, 1}}, true, true},
        {{{w, 3}}, true, true}, // a word
        {{{w, 4}}, false, true},
        {{{w, 33}}, false, true},
        {{{w, 34}}, false, false},
        {{{r, 2}}, false, false}, // no call begins with a read of more
        {{{w, 1}, {r, 1}}, true, true},
        {{{w, 1}, {r, 2}}, true, true},
        {{{w, 1}, {r, 3}}, false, true},
        {{{w, 1}, {r, 32}}, false, true},
        {{{w, 1}, {r, 33}}, false, false},
        {{{w, 1}, {r, 0}}, false, false},
        {{{w, 2}, {r, 1}}, false, false}, // a command is one byte
        {{{w, 1}, {w, 1}}, false, false},
        {{{w, 1}, {r, 1}, {r, 1}}, false, false},
    };
    for (const Row& row : rows) {
        const std::size_t place = static_cast<std::size_t>(&row - rows);
        EXPECT_EQ(row.byWords, takesAll({.smbus = smbusCalls::words}, row.messages)) << place;
        EXPECT_EQ(row.byBlocks, takesAll({.smbus = smbusCalls::blocks}, row.messages)) << place;
    }
}

TEST(SmbusController, ReadsARegisterOfTheDeviceThatItNamed)
{
    Bytes command{0}, data(2);
    const std::vector<segment> apart{{0x90, direction::write, command, false}, {0x92, direction::read, data, false}};
    EXPECT_FALSE(takes({.smbus = smbusCalls::blocks}, apart));
}

TEST_F(Controller, SendsNoAddressAloneWithoutEmptyMessages)
{
    powerWith("no_empty_messages = true");
    EXPECT_EQ(outcome::refused, on->probe(0xA0));
    EXPECT_EQ(0U, on->planar->busTimeNs());
    EXPECT_EQ(outcome::done, on->read(0xA0, 1).end);
}

// 400 bits: 41 bytes of data end after the last of them, and so do 42 of a write, which has one address less.
TEST_F(Controller, GivesUpATransactionThatTakesTooLong)
{
    powerWith("timeout_ms = 1");
    Bytes page = counting(64, 1);
    const Answer writing = on->write(0xA0, Bytes{0, 0} + page);
    EXPECT_EQ(outcome::timedOut, writing.end);
    EXPECT_EQ(0U, writing.segment + writing.bytesMoved);
    on->idleMs(40);
    EXPECT_EQ(counting(42, 1) + Bytes(2), stored(44));
    EXPECT_EQ(outcome::timedOut, on->readAt(0xA0, {0, 0}, 64).end);
    // the chip has given the first 41 and stands behind them
    EXPECT_EQ((Bytes{42, 0}), on->read(0xA0, 2).data);
    EXPECT_EQ(outcome::done, on->readAt(0xA0, {0, 0}, 30).end);
}

TEST_F(Controller, ReportsATimeOutWhereNobodyAcknowledges)
{
    powerWith("absent = \"timeout\"");
    EXPECT_EQ(outcome::timedOut, on->probe(0xA4));
    EXPECT_GT(1'000'000U, on->planar->busTimeNs());
    EXPECT_EQ(outcome::done, on->probe(0xA0));
    EXPECT_EQ(outcome::done, on->write(0xA0, {0, 0, 7}).end);
    // in its write cycle
    EXPECT_EQ(outcome::timedOut, on->probe(0xA0));
    on->idleMs(5);
    EXPECT_EQ(outcome::done, on->probe(0xA0));
}

TEST_F(Controller, WaitsItsWholeTimeForAnAcknowledge)
{
    powerWith("absent = \"timeout\", timeout_ms = 20");
    EXPECT_EQ(outcome::timedOut, on->probe(0xA4));
    EXPECT_EQ(20'000'000U, on->planar->busTimeNs());
}

TEST_F(Controller, RefusedDataIsNoTimeOut)
{
    powerWith("absent = \"timeout\"");
    fault({.kind = "nack-data", .byte = 2});
    EXPECT_EQ(outcome::dataNotAcknowledged, on->write(0xA0, {0, 0, 7}).end);
}

TEST_F(Controller, StopBetweenMessagesLeavesPointersWhereTheyAre)
{
    powerWith("stop_between = true");
    EXPECT_EQ(outcome::done, on->store(0xA0, {0, 5, 0xAB}));
    EXPECT_EQ((Bytes{0xAB, 0}), on->readAt(0xA0, {0, 5}, 2).data);
    // 25 degrees
    EXPECT_EQ((Bytes{0x19, 0}), on->readAt(0x90, {0}, 2).data);
}

// Behind the STOP the hub passes the header on, as a write without data. A read after that gives its status.
TEST_F(Controller, StopBetweenMessagesBreaksAReadThroughAHub)
{
    powerWith("stop_between = true");
    EXPECT_EQ(outcome::addressNotAcknowledged, on->readAt(0x80, {3, 0xA2, 0}, 3).end);
    on->idleMs(1);
    EXPECT_EQ((Bytes{0, 0xFF, 0xFF}), on->read(0x80, 3).data);
}

TEST_F(Controller, StopBetweenMessagesEndsTheTransactionForAFault)
{
    powerWith("stop_between = true");
    fault({.kind = "nack", .address = 0xA0, .nth = 2, .count = 1});
    const Answer got = on->readAt(0xA0, {0, 5}, 2);
    EXPECT_EQ(outcome::addressNotAcknowledged, got.end);
    EXPECT_EQ(1U, got.segment);
}

TEST_F(Controller, StopBetweenMessagesKeepsThePagesOfAllOfThem)
{
    power("adapter = { stop_between = true }\n" + chip("24C02", "0xA0", "image = \"a.bin\"") +
          chip("24C02", "0xA2", "image = \"b.bin\"") + chip("24C256", "0xA8", "kind = \"fram\"\nimage = \"f.bin\""));
    Bytes first{0x10, 0xAB}, second{0x20, 0xCD, 0xEF}, third{0, 7, 0x12}, fourth{0, 1, 0x34};
    segment parts[4] = {{0xA0, direction::write, first, false},
                        {0xA2, direction::write, second, false},
                        {0xA8, direction::write, third, false},
                        {0xA8, direction::write, fourth, false}};
    EXPECT_EQ(outcome::done, on->run(parts, {}).end);
    EXPECT_EQ((Bytes(16, 0xFF) + Bytes{0xAB} + Bytes(239, 0xFF)), home.content("a.bin"));
    EXPECT_EQ((Bytes(32, 0xFF) + Bytes{0xCD, 0xEF} + Bytes(222, 0xFF)), home.content("b.bin"));
    const Bytes fast = home.content("f.bin");
    ASSERT_EQ(32768U, fast.size());
    EXPECT_EQ(0x12, fast[7]);
    EXPECT_EQ(0x34, fast[1]);
}

TEST_F(Controller, StopBetweenMessagesThatHeldSdaKeepsFromTakingPlaceEndsTheTransaction)
{
    powerWith("stop_between = true");
    Bytes one(1), two(2);
    // TOS: one byte of 0x5000 ends on a 0
    on->write(0x90, {0x03});
    segment parts[2] = {{0x90, direction::read, one, false}, {0x90, direction::read, two, false}};
    const Answer got = on->run(parts, {});
    EXPECT_EQ(outcome::sdaHeld, got.end);
    EXPECT_EQ(1U, got.segment);
    EXPECT_EQ(Bytes{0x50}, one);
    EXPECT_EQ(outcome::done, on->planar->reset());
}

} // namespace

} // namespace kest::sim::test
