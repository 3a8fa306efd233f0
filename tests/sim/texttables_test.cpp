#include "sim/texttables.h"

#include <gtest/gtest.h>
#include <string>

namespace kest::sim::test
{

namespace
{

TEST(TextTables, ReachFromTheirLineToTheNextTable)
{
    const std::string text = "seed = 7 # [[bus]]\n\n"
                             "[[bus]]\nname = \"left\"\n"
                             "\t [[chip]] # of it\nbus = \"left\"\n\n"
                             "[[fault]]\r\nkind = \"nack\"\r\n"
                             "[[bus]]\nname = \"right\"";
    const auto found = findTables(text);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ("seed = 7 # [[bus]]\n\n", found->head);
    ASSERT_EQ(2U, found->buses.size());
    EXPECT_EQ("[[bus]]\nname = \"left\"\n", found->buses[0].text);
    EXPECT_EQ((tablePlace{3, 1}), found->buses[0].place);
    EXPECT_EQ("[[bus]]\nname = \"right\"", found->buses[1].text);
    EXPECT_EQ((tablePlace{10, 1}), found->buses[1].place);
    ASSERT_EQ(1U, found->chips.size());
    EXPECT_EQ("\t [[chip]] # of it\nbus = \"left\"\n\n", found->chips[0].text);
    EXPECT_EQ((tablePlace{5, 3}), found->chips[0].place);
    ASSERT_EQ(1U, found->faults.size());
    EXPECT_EQ("[[fault]]\r\nkind = \"nack\"\r\n", found->faults[0].text);
}

TEST(TextTables, ATextWithoutTablesIsAllHead)
{
    for (const std::string text : {"", "\n", "seed = 1", "# [[bus]]\n"}) {
        const auto found = findTables(text);
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(text, found->head);
        EXPECT_TRUE(found->buses.empty() && found->chips.empty() && found->faults.empty());
    }
}

TEST(TextTables, OtherTablesAndOtherHeadersAreNotFound)
{
    for (const std::string text :
         {"[bus]\n", "[[ bus ]]\n", "[[\"bus\"]]\n", "[[buses]]\n", "[[bus]] name = 1\n", "[[bus\n",
          "[[bus]]\nname = \"a\"\n[bus.adapter]\nmessages = 1\n", "inputs = [\n[1],\n]\n"}) {
        EXPECT_FALSE(findTables(text).has_value()) << text;
    }
}

} // namespace
} // namespace kest::sim::test
