#include "tools/common/escape.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace kest::tools
{
namespace
{

TEST(Escape, NothingReachesATerminalThatIsNotPrintable)
{
    EXPECT_EQ("plain text", escaped("plain text"));
    EXPECT_EQ("\\x1B[31mred\\x07\\x0A", escaped("\x1B[31mred\a\n"));
    EXPECT_EQ("\\\\x41", escaped("\\x41"));
    EXPECT_EQ("Gehäuselüfter ✓ 温", escaped("Gehäuselüfter ✓ 温"));
    // C1 control sequence introducer
    EXPECT_EQ("\\xC2\\x9B31m", escaped("\xC2\x9B"
                                       "31m"));
    EXPECT_EQ("a\\xE2\\x80\\xAEb", escaped("a\u202Eb"));
    EXPECT_EQ("a\\xE2\\x80\\x8Bb", escaped("a\u200Bb"));
    EXPECT_EQ("\\xFF\\xC3", escaped("\xFF\xC3"));
    // two bytes for what fits into one
    EXPECT_EQ("\\xC0\\xAF", escaped("\xC0\xAF"));
    // three bytes for what fits into one
    EXPECT_EQ("\\xE0\\x80\\xAF", escaped("\xE0\x80\xAF"));
    // surrogate
    EXPECT_EQ("\\xED\\xA0\\x80", escaped("\xED\xA0\x80"));
    // beyond the basic plane
    EXPECT_EQ("\\xF0\\x9F\\x92\\xA9", escaped("\xF0\x9F\x92\xA9"));
    EXPECT_EQ(std::string("\\x00") + "x", escaped(std::string_view("\0x", 2)));
}

TEST(Escape, WordsForAShell)
{
    EXPECT_EQ("sim:planar,L,2C0256,A0", shellWord("sim:planar,L,2C0256,A0"));
    EXPECT_EQ("/tmp/a-b_c.json", shellWord("/tmp/a-b_c.json"));
    EXPECT_EQ("''", shellWord(""));
    EXPECT_EQ("'two words'", shellWord("two words"));
    EXPECT_EQ("'$(reboot);*'", shellWord("$(reboot);*"));
    EXPECT_EQ("'it'\"'\"'s'", shellWord("it's"));
}

} // namespace
} // namespace kest::tools
