#include "contents/shownvalue.h"

#include <gtest/gtest.h>

#include "contents/reader.h"
#include "tests/contents/images.h"

namespace kest::contents::test
{
namespace
{

TEST(ShownValue, BytesAreHexadecimalDigits)
{
    EXPECT_EQ("81 19 00", shownText({.value = Bytes{0x81, 0x19, 0x00}}));
    EXPECT_EQ("", shownText({.value = Bytes{}}));
    EXPECT_EQ("Box", shownText({.value = std::string("Box"), .text = "Box"}));
    EXPECT_EQ("8 of FF", shownText({.text = "8 of FF"}));
}

TEST(ShownValue, OfManyBytesTheFirstAreShown)
{
    std::string whole = "5A";
    for (int count = 1; count < 256; ++count) {
        whole += " 5A";
    }
    EXPECT_EQ(whole, shownText({.value = Bytes(256, 0x5A)}));
    EXPECT_EQ(whole + " ... 1 more", shownText({.value = Bytes(257, 0x5A)}));
}

TEST(ShownValue, OtherBytesHoldNoTextInTheReading)
{
    static constexpr row rows[] = {{.name = "a", .label = "A"}};
    static constexpr format as{.name = "test", .rows = rows};
    const reading what = readAs(as, fromHex("11 81 19"));
    const node* const other = findNode(what, "other.at1");
    ASSERT_NE(nullptr, other);
    EXPECT_EQ("", other->text);
    EXPECT_EQ("81 19", shownText(*other));
}

} // namespace
} // namespace kest::contents::test
