/// Texts as JSON strings.
#include "platform/host/json/quoted.h"

#include <gtest/gtest.h>

namespace kest::test
{
namespace
{

using host::quotedText;

TEST(QuotedText, IsAscii)
{
    EXPECT_EQ(R"("plain text: ~!")", quotedText("plain text: ~!"));
    EXPECT_EQ(R"("")", quotedText(""));
    EXPECT_EQ(R"("\"\\\b\f\n\r\t\u0001\u001f\u007f\u0000")",
              quotedText(std::string_view("\"\\\b\f\n\r\t\x01\x1F\x7F\0", 11)));
    EXPECT_EQ(R"("\u00e9\u20ac\ud83d\ude00")", quotedText("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
}

TEST(QuotedText, HasReplacementsForWhatIsNotUtf8)
{
    // bytes that begin no character
    EXPECT_EQ(R"("\ufffdz\ufffd\ufffd")", quotedText("\x80z\xC0\xFF"));
    // characters that do not end
    EXPECT_EQ(R"("\ufffdz\ufffd")", quotedText("\xE2\x82z\xF0\x9F\x98"));
    EXPECT_EQ(R"("\ufffd\u00e9")", quotedText("\xF0\x9F\xC3\xA9"));
    // overlong, half of a pair, beyond the last character: the second byte can't follow the first
    EXPECT_EQ(R"("\ufffd\ufffd\ufffd")", quotedText("\xE0\x9F\xBF"));
    EXPECT_EQ(R"("\ufffd\ufffd\ufffd")", quotedText("\xED\xA0\x80"));
    EXPECT_EQ(R"("\ufffd\ufffd\ufffd\ufffd")", quotedText("\xF4\x90\x80\x80"));
}

} // namespace
} // namespace kest::test
