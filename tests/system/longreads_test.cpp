/// Reads of a whole chip at 100 kHz, where each transaction has its own offset: from the exported function down to the
/// bytes on the bus.
#include "tests/host/fakekernel.h"
#include "tests/system/library_machine.h"

namespace kest::test
{
namespace
{

constexpr unsigned int wholeChip = 65536;
// what fits into 250 ms at 100 kHz, beside an offset of two bytes
constexpr unsigned int pieceBytes = 2773;
constexpr const char* largeChip = "sim:planar,L,2C0512,A6";

Ending slowRead(const std::string& text, unsigned int length)
{
    constexpr std::array<kest_attributeValue, KEST_ATTR_COUNT> slow{100, 1, 1, 4, 2, 1};
    tavo_deviceaddress address{};
    std::ranges::copy(text, static_cast<char*>(address.location));
    Ending result{.length = length, .data = {}};
    unsigned char* data = nullptr;
    const std::unique_ptr<ErrlEntry> entry(KEST_seepromRead(address, nullptr, 0, &result.length, &data, slow.data()));
    result.data.assign(data, data + std::min(result.length, wholeChip));
    tavo_util_free(reinterpret_cast<void**>(&data));
    if (entry) {
        unsigned int words = 0;
        result.returnCode = entry->getRC();
        result.word4 = entry->getSRC(0)->getHexData(words)[4];
    }
    return result;
}

class LongReads : public LibraryMachine
{
protected:
    /// A fault of the n-th transaction from now on, once.
    void failAt(const char* kind, std::uint64_t nth, std::uint64_t byte = 0) const
    {
        machine->addFault({.kind = kind, .bus = "planar", .nth = nth, .count = 1, .byte = byte});
    }
};

// 23 * 2773 + 1757
TEST_F(LongReads, WholeChipTakesTwentyFourTransactions)
{
    failAt("gone", 25);
    const Ending all = slowRead(largeChip, 0);
    EXPECT_TRUE(all.good()) << all;
    EXPECT_EQ(image("large.bin"), all.data);
    // the 25th
    EXPECT_EQ(sim::outcome::gone, wires->probe(0xA6, 0).end);
}

TEST_F(LongReads, WholeChipTakesHardlyMoreBusTimeThanItsBits)
{
    const std::uint64_t before = wires->busTimeNs();
    EXPECT_TRUE(slowRead(largeChip, wholeChip).good());
    // 65,540 bytes, START, STOP, and a repeated START of one and a half bits. Each of the 23 further transactions has
    // 40 bits of its own: START, address, offset, repeated START, address, STOP.
    const std::uint64_t floorNs = 5'898'635'000;
    EXPECT_LE(before + floorNs, wires->busTimeNs());
    EXPECT_GE(before + floorNs / 1000 * 1005, wires->busTimeNs());
}

TEST_F(LongReads, FailureOfALaterTransactionIsReportedWithWhatCameBefore)
{
    struct Row {
        std::uint64_t nth;
        unsigned int moved;
    };
    for (const Row& row : {Row{1, 0}, Row{2, 2773}, Row{3, 5546}, Row{24, 63779}}) {
        failAt("gone", row.nth);
        const Ending cut = slowRead(largeChip, wholeChip);
        EXPECT_EQ(0x80001312U, cut.returnCode) << row.nth;
        EXPECT_EQ(static_cast<std::uint32_t>(ENODEV), cut.word4) << row.nth;
        EXPECT_EQ(row.moved, cut.length) << row.nth;
        EXPECT_EQ(part(image("large.bin"), 0, row.moved), cut.data) << row.nth;
        machine->clearFaults();
    }
}

TEST_F(LongReads, SilenceInALaterTransactionIsReportedAsSilence)
{
    machine->addFault({.kind = "nack", .bus = "planar", .address = 0xA6, .nth = 4});
    const Ending cut = slowRead(largeChip, wholeChip);
    EXPECT_EQ(0x40001311U, cut.returnCode);
    EXPECT_EQ(static_cast<std::uint32_t>(ENXIO), cut.word4);
    EXPECT_EQ(3 * pieceBytes, cut.length);
}

TEST_F(LongReads, TransactionThatEndsTooSoonCountsWhatItBrought)
{
    failAt("short", 2, 102);
    const Ending cut = slowRead(largeChip, wholeChip);
    EXPECT_EQ(pieceBytes + 102, cut.length);
    EXPECT_EQ(static_cast<std::uint32_t>(EIO), cut.word4);
    EXPECT_EQ(part(image("large.bin"), 0, cut.length), cut.data);
}

TEST_F(LongReads, OnAKernelBusEveryTransactionHasItsOffsetAndFitsIntoAMessage)
{
    settings.use("state = \"state\"\n[linux]\nlock_folder = \"locks\"\n");
    FakeKernel kernel;
    kernel.chips[0x53] = {.memory = image("large.bin")};
    // another program reads between two transactions, and leaves the chip's pointer elsewhere
    kernel.beforeTransfer = [&kernel] { kernel.chips[0x53].pointer = 0x4321; };
    const Ending all = slowRead("/dev/i2c-7,L,2C0512,A6", wholeChip);
    EXPECT_TRUE(all.good()) << all;
    EXPECT_EQ(image("large.bin"), all.data);
    ASSERT_EQ(24U, kernel.log.size());
    EXPECT_EQ("53W 0000 53R 2773", kernel.log.front());
    EXPECT_EQ("53W 0AD5 53R 2773", kernel.log.at(1));
    EXPECT_EQ("53W EE4E 53R 2773", kernel.log.at(22));
    EXPECT_EQ("53W F923 53R 1757", kernel.log.back());
}

TEST_F(LongReads, OnAFastKernelBusNoMessageIsLongerThanTheKernelTakes)
{
    settings.use("state = \"state\"\n[linux]\nlock_folder = \"locks\"\n");
    FakeKernel kernel;
    kernel.adapterHz = 1'000'000;
    kernel.chips[0x53] = {.memory = image("large.bin")};
    tavo_deviceaddress address = LibraryMachine::address("/dev/i2c-7,L,2C0512,A6");
    // the bus's own speed
    constexpr std::array<kest_attributeValue, KEST_ATTR_COUNT> own{0, 1, 1, 4, 2, 1};
    unsigned int length = wholeChip;
    unsigned char* data = nullptr;
    EXPECT_EQ(nullptr, KEST_seepromRead(address, nullptr, 0, &length, &data, own.data()));
    EXPECT_EQ(image("large.bin"), Bytes(data, data + length));
    tavo_util_free(reinterpret_cast<void**>(&data));
    EXPECT_EQ((std::vector<std::string>{"53W 0000 53R 8192 53R 8192 53R 8192 53R 3193",
                                        "53W 6C79 53R 8192 53R 8192 53R 8192 53R 3193", "53W D8F2 53R 8192 53R 1806"}),
              kernel.log);
}

} // namespace
} // namespace kest::test
