#include "tests/sim/machinetest.h"

namespace kest::sim::test
{

namespace
{

class AddressCounter : public MachineTest
{
protected:
    void power24c(const std::string& type, const std::string& more = {}, const std::string& address = "0xA0")
    {
        MachineTest::power(chip(type, address, "image = \"a.bin\"\n" + more));
    }
    std::uint32_t counter(const std::string& label) { return value("planar " + label, "counter"); }
};

TEST_F(AddressCounter, BlockBitsAreTheUpperBitsOfTheOffset)
{
    struct Row {
        const char* type;
        std::size_t size;
        std::uint8_t blocks;
    };
    for (const Row& type : {Row{"24C04", 512, 2}, Row{"24C08", 1024, 4}, Row{"24C16", 2048, 8}}) {
        SCOPED_TRACE(type.type);
        std::filesystem::remove(home.path / "a.bin");
        power24c(type.type);
        for (std::uint8_t block = 0; block < type.blocks; ++block) {
            const auto address = static_cast<std::uint8_t>(0xA0 + 2 * block);
            EXPECT_EQ(outcome::done, on->store(address, {0x12, static_cast<std::uint8_t>(0x50 + block)}));
        }
        const Bytes image = home.content("a.bin");
        ASSERT_EQ(type.size, image.size());
        for (std::uint8_t block = 0; block < type.blocks; ++block) {
            EXPECT_EQ(0x50 + block, image[256U * block + 0x12]);
            EXPECT_EQ(on->readAt(static_cast<std::uint8_t>(0xA0 + 2 * block), {0x12}, 1).data,
                      Bytes{static_cast<std::uint8_t>(0x50 + block)});
        }
        if (type.blocks < 8) {
            EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(static_cast<std::uint8_t>(0xA0 + 2 * type.blocks)));
        }
    }
}

TEST_F(AddressCounter, ReadGoesOnIntoTheNextBlockAndRollsOverAtTheLast)
{
    power24c("24C04");
    on->store(0xA0, {0xFF, 0x11});
    on->store(0xA2, {0x00, 0x22});
    on->store(0xA2, {0xFF, 0x33});
    on->store(0xA0, {0x00, 0x44});
    EXPECT_EQ(on->readAt(0xA0, {0xFF}, 2).data, (Bytes{0x11, 0x22}));
    EXPECT_EQ(on->readAt(0xA2, {0xFF}, 2).data, (Bytes{0x33, 0x44}));
}

TEST_F(AddressCounter, BlockBitsOfAReadDoNotMoveTheCounter)
{
    power24c("24C04");
    on->store(0xA2, {0x10, 0x55, 0x66});
    EXPECT_EQ(on->readAt(0xA2, {0x10}, 1).data, Bytes{0x55});
    EXPECT_EQ(on->read(0xA0, 1).data, Bytes{0x66});
}

TEST_F(AddressCounter, WriteCycleSilencesAllBlocks)
{
    power24c("24C16");
    on->write(0xA6, {0, 1});
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xA0));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xAE));
}

TEST_F(AddressCounter, BlocksBehindAHub)
{
    power(chip("HUB922", "0x80") + chip("24C08", "0xA8", "hub = 0x80\nport = 2\nimage = \"a.bin\""));
    on->write(0x80, {2, 0xAC, 0x30, 7, 8});
    on->idleMs(10);
    EXPECT_EQ(7, home.content("a.bin")[0x230]);
    EXPECT_EQ(on->readAt(0x80, {2, 0xAC, 0x30}, 3).data, (Bytes{0, 7, 8}));
    EXPECT_EQ(on->readAt(0x80, {2, 0xA8, 0x30}, 2).data, (Bytes{0, 0xFF}));
}

TEST_F(AddressCounter, OneOffsetByteOfTwoIsTakenAsThePartDoes)
{
    struct Row {
        const char* key;
        std::uint32_t after;
    };
    for (const Row& row : {Row{"", 0x0007}, Row{"half_offset = \"low\"", 0x0007}, Row{"half_offset = \"high\"", 0x0734},
                           Row{"half_offset = \"keep\"", 0x1234}}) {
        SCOPED_TRACE(row.key);
        power24c("24C256", row.key);
        on->write(0xA0, {0x12, 0x34});
        EXPECT_EQ(0x1234U, counter("0xA0 24C256"));
        on->write(0xA0, {0x07});
        EXPECT_EQ(row.after, counter("0xA0 24C256"));
        // two are an offset on every part
        on->write(0xA0, {0x56, 0x78});
        EXPECT_EQ(0x5678U, counter("0xA0 24C256"));
    }
}

TEST_F(AddressCounter, PartThatIgnoresItsAddressPinsAnswersAllEightAddresses)
{
    power(chip("24C02", "0xA4", "image = \"a.bin\"\naddresses = \"all\"") + chip("PCA9552", "0xC0"));
    for (unsigned address = 0xA0; address <= 0xAE; address += 2) {
        EXPECT_EQ(outcome::done, on->probe(static_cast<std::uint8_t>(address)));
    }
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0x9E));
    EXPECT_EQ(outcome::addressNotAcknowledged, on->probe(0xB0));
    on->store(0xAE, {0x10, 9});
    EXPECT_EQ(on->readAt(0xA0, {0x10}, 1).data, Bytes{9});
    EXPECT_EQ(9, home.content("a.bin")[0x10]);
}

} // namespace
} // namespace kest::sim::test
