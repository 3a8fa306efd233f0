#include "sim/chance.h"

#include <array>
#include <gtest/gtest.h>

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

TEST(Chance, PartsHaveNumbersOfTheirOwn)
{
    EXPECT_EQ(0x9F0629F4A10AA78BU, chance{1}.of("planar").of("0xA0").bits(0));
    EXPECT_EQ(0x8625A2873518DD9DU, chance{1}.of(7).bits(0));
    EXPECT_NE(chance{1}.of("planar").of("0xA2").bits(0), chance{1}.of("planar").of("0xA0").bits(0));
}

} // namespace
} // namespace kest::sim::test
