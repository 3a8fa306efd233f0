#include "sim/chance.h"
#include "tests/sim/machinetest.h"

#include <array>

namespace kest::sim::test
{

namespace
{

// Published outputs of SplitMix64 for the seed 1234567.
TEST(Chance, NumbersAreTheHashOfSeedAndEvent)
{
    constexpr chance source{1234567};
    constexpr std::array<std::uint64_t, 5> expected{6457827717110365317U, 3203168211198807973U, 9817491932198370423U,
                                                    4593380528125082431U, 16408922859458223821U};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], source.bits(i + 1));
    }
}

TEST(Chance, ChoicesBelowACountAreItsShareOfTheUpperBits)
{
    constexpr chance source{1234567};
    constexpr std::array<std::uint32_t, 8> expected{3, 1, 5, 2, 8, 4, 5, 2};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], source.below(i + 1, 10));
    }
    EXPECT_EQ(0U, source.below(1, 1));
}

TEST(Chance, FractionsAreTheUpper53Bits)
{
    EXPECT_EQ(0.3500795420214081, chance{1234567}.fraction(1));
    EXPECT_EQ(0.17364409667091263, chance{1234567}.fraction(2));
}

/// Everything that a run of write cycles, faults and losses of power leaves in the machine's folder.
class Run : public MachineTest
{
protected:
    std::string of(const std::string& seed)
    {
        on.reset();
        machine.reset();
        for (const auto& entry : std::filesystem::directory_iterator{home.path}) {
            std::filesystem::remove(entry);
        }
        home.put("machine.toml", seed + "[[bus]]\nname = \"planar\"\n" + chip("24C02", "0xA0", "image = \"a.bin\"") +
                                     chip("24C256", "0xA2", "image = \"b.bin\"") +
                                     "[[fault]]\nkind = \"nack-data\"\nprobability = 0.3\nbyte = 3\n" +
                                     "[[fault]]\nkind = \"power-cut\"\nprobability = 0.01\n");
        open();
        for (std::uint8_t step = 0; step < 100; ++step) {
            on->write(0xA0, Bytes{step} + counting(5, step));
            on->write(0xA2, Bytes{step, step} + counting(40, step));
            on->asksUntilAnswered(0xA0, step);
            on->read(0xA2, 3);
        }
        on->planar->reset();
        return home.text("machine.state") + home.text("a.bin") + home.text("b.bin");
    }
};

TEST_F(Run, IsTheSameByteByByteWithTheSameSeed)
{
    const std::string first = of("seed = 4\n");
    EXPECT_TRUE(of("seed = 4\n") == first);
    EXPECT_FALSE(of("seed = 5\n") == first);
}

TEST(Chance, PartsHaveNumbersOfTheirOwn)
{
    EXPECT_EQ(0x9F0629F4A10AA78BU, chance{1}.of("planar").of("0xA0").bits(0));
    EXPECT_EQ(0x8625A2873518DD9DU, chance{1}.of(7).bits(0));
    EXPECT_NE(chance{1}.of("planar").of("0xA2").bits(0), chance{1}.of("planar").of("0xA0").bits(0));
}

} // namespace
} // namespace kest::sim::test
