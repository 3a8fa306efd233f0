/// Texts as JSON strings.
#include "platform/host/json/quoted.h"

#include <array>
#include <gtest/gtest.h>
#include <string>

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

TEST(QuotedText, EscapesAtEveryPlaceOfALongText)
{
    struct Row {
        char byte;
        std::string quoted;
    };
    const std::array rows{Row{'\0', "\\u0000"},   Row{'\n', "\\n"},      Row{'\x1F', "\\u001f"}, Row{' ', " "},
                          Row{'!', "!"},          Row{'"', "\\\""},      Row{'#', "#"},          Row{'[', "["},
                          Row{'\\', "\\\\"},      Row{']', "]"},         Row{'~', "~"},          Row{'\x7F', "\\u007f"},
                          Row{'\x80', "\\ufffd"}, Row{'\xFF', "\\ufffd"}};
    const std::string plain = "abcdefghijklmnopqrstuvw";
    for (const Row& each : rows) {
        for (std::size_t at = 0; at < plain.size(); ++at) {
            std::string text = plain;
            text[at] = each.byte;
            EXPECT_EQ('"' + plain.substr(0, at) + each.quoted + plain.substr(at + 1) + '"', quotedText(text));
        }
    }
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
