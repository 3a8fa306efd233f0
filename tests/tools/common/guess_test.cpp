#include "base/guess.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace kest
{
namespace
{

TEST(Guesses, CountWrongMissingAndSwappedLetters)
{
    EXPECT_EQ(0U, wordDistance("", ""));
    EXPECT_EQ(3U, wordDistance("", "abc"));
    EXPECT_EQ(0U, wordDistance("detect", "Detect"));
    EXPECT_EQ(1U, wordDistance("detct", "detect"));
    EXPECT_EQ(1U, wordDistance("deteect", "detect"));
    EXPECT_EQ(1U, wordDistance("detekt", "detect"));
    EXPECT_EQ(1U, wordDistance("dteect", "detect"));
    EXPECT_EQ(2U, wordDistance("dtecct", "detect"));
    // no letter is moved twice
    EXPECT_EQ(3U, wordDistance("ca", "abc"));
    EXPECT_EQ(6U, wordDistance("abcdef", "uvwxyz"));
}

TEST(Guesses, AreNear)
{
    const std::vector<std::string> known{"seeprom", "scan", "read", "planar-vpd", "panel-vpd", "--length"};
    EXPECT_EQ("seeprom", guess("seerpom", known));
    EXPECT_EQ("seeprom", guess("SEPROM", known));
    EXPECT_EQ("read", guess("raed", known));
    EXPECT_EQ("scan", guess("sca", known));
    EXPECT_EQ("planar-vpd", guess("planr-vpd", known));
    EXPECT_EQ("--length", guess("--lenght", known));
    // the nearer one, and of two equal ones the first
    EXPECT_EQ("panel-vpd", guess("panal-vpd", known));
    EXPECT_EQ("abc1", guess("abc3", {"abc1", "abc2"}));
}

TEST(Guesses, AreNotFarFetched)
{
    const std::vector<std::string> known{"on", "off", "read", "write", "detect", "planar-vpd"};
    for (const char* word : {"", "x", "no", "in", "raid2", "dump", "reset", "plan", "planar", "riser-vpd"}) {
        EXPECT_EQ("", guess(word, known)) << word;
    }
    EXPECT_EQ("", guess("anything", {}));
    EXPECT_EQ("", guess(std::string(1'000'000, 'a'), {std::string(1'000'000, 'a')}));
}

TEST(Guesses, StandBeforeWhatElseToTry)
{
    EXPECT_EQ("did you mean 'read'? see --help", didYouMean("raed", {"read"}, "see --help"));
    EXPECT_EQ("did you mean 'read'?", didYouMean("raed", {"read"}));
    EXPECT_EQ("see --help", didYouMean("nonsense", {"read"}, "see --help"));
    EXPECT_EQ("", didYouMean("nonsense", {"read"}));
}

} // namespace
} // namespace kest
