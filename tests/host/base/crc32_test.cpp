#include "base/crc32.h"

#include <gtest/gtest.h>
#include <string_view>
#include <vector>

namespace kest::test
{
namespace
{

std::uint32_t sumOf(std::string_view text)
{
    return crc32(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

TEST(Crc32, OfKnownTexts)
{
    EXPECT_EQ(0x00000000U, sumOf(""));
    EXPECT_EQ(0xE8B7BE43U, sumOf("a"));
    EXPECT_EQ(0xCBF43926U, sumOf("123456789")) << "the check value of this CRC";
    EXPECT_EQ(0x414FA339U, sumOf("The quick brown fox jumps over the lazy dog"));
}

TEST(Crc32, OfBlocksOfZerosAndOnes)
{
    EXPECT_EQ(0xC71C0011U, crc32(std::vector<std::uint8_t>(4096, 0x00)));
    EXPECT_EQ(0xF154670AU, crc32(std::vector<std::uint8_t>(4096, 0xFF)));
}

/// Lengths that end anywhere in a step, from addresses anywhere in a word.
TEST(Crc32, IsThatOfBitAfterBit)
{
    std::vector<std::uint8_t> bytes(64);
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        bytes[at] = static_cast<std::uint8_t>(at * 151 + 7);
    }
    for (std::size_t from = 0; from < 9; ++from) {
        for (std::size_t length = 0; length <= 40; ++length) {
            std::uint32_t slow = 0xFFFFFFFF;
            for (std::size_t bit = 0; bit < 8 * length; ++bit) {
                slow ^= std::uint32_t{bytes[from + bit / 8]} >> bit % 8 & 1U;
                slow = slow >> 1 ^ (slow & 1) * 0xEDB88320;
            }
            EXPECT_EQ(~slow, crc32(std::span(bytes).subspan(from, length))) << from << " " << length;
        }
    }
}

} // namespace
} // namespace kest::test
