#include "tests/contents/damage.h"

#include <gtest/gtest.h>

namespace kest::contents::test
{

void expectBytesGuarded(std::string_view formatName, const Bytes& image, std::string_view checksumName,
                        std::size_t from, std::size_t length)
{
    ASSERT_LE(from + length, image.size());
    EXPECT_EQ("", problemOf(readExactly(formatName, image), checksumName));
    for (std::size_t at = from; at < from + length; ++at) {
        for (const int change : {0x01, 0x80, 0xFF}) {
            Bytes damaged = image;
            damaged[at] = static_cast<std::uint8_t>(damaged[at] ^ change);
            const reading what = readExactly(formatName, damaged);
            const node* const sum = findNode(what, checksumName);
            ASSERT_NE(nullptr, sum) << "byte " << at;
            EXPECT_EQ(verdict::damaged, sum->is) << "byte " << at << " changed by " << change;
            EXPECT_FALSE(isWhole(what)) << "byte " << at;
        }
    }
}

void expectCutsDamaged(std::string_view formatName, const Bytes& image, std::size_t whole)
{
    ASSERT_LE(whole, image.size());
    for (std::size_t length = 0; length < whole; ++length) {
        const Bytes cut(image.begin(), image.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_FALSE(isWhole(readExactly(formatName, cut))) << length << " bytes";
    }
}

} // namespace kest::contents::test
