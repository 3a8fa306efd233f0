/// What is read of JSON texts.
#include "platform/host/json/document.h"

#include <gtest/gtest.h>

namespace kest::test
{
namespace
{

using host::jsonDocument;
using Kind = jsonDocument::kind;

/// The number of a field of the root.
std::uint64_t numberOf(const jsonDocument& json, std::string_view name)
{
    const auto found = json.root().field(name);
    EXPECT_TRUE(found && found->what() == Kind::number) << name;
    return found ? found->number() : 0;
}

TEST(JsonDocument, HasTheValuesOfAnObject)
{
    const auto json = jsonDocument::read(
        R"({"number":4294967295,"below":-2,"real":1.5,"yes":true,"no":false,"none":null,"text":"a\u00e9\n"})");
    ASSERT_TRUE(json);
    EXPECT_EQ(0xFFFFFFFFU, numberOf(*json, "number"));
    EXPECT_EQ(-2, static_cast<std::int64_t>(numberOf(*json, "below")));
    EXPECT_EQ(Kind::realNumber, json->root().field("real")->what());
    EXPECT_TRUE(json->root().field("yes")->truth());
    EXPECT_FALSE(json->root().field("no")->truth());
    EXPECT_EQ(Kind::null, json->root().field("none")->what());
    EXPECT_EQ("a\xC3\xA9\n", json->root().field("text")->text());
    EXPECT_FALSE(json->root().field("other"));
}

TEST(JsonDocument, FieldsOfInnerObjectsAreNotThoseOfTheOuter)
{
    const auto json = jsonDocument::read(R"({"list":[{"a":1},[{"a":2}]],"a":3,"object":{"a":4,"b":5}})");
    ASSERT_TRUE(json);
    EXPECT_EQ(3U, numberOf(*json, "a"));
    EXPECT_FALSE(json->root().field("b"));
    const auto items = json->root().field("list")->items();
    ASSERT_EQ(2U, items.size());
    EXPECT_EQ(1U, items[0].field("a")->number());
    EXPECT_FALSE(items[1].field("a")) << "a list has no fields";
    EXPECT_EQ(5U, json->root().field("object")->field("b")->number());
}

TEST(JsonDocument, OfFieldsWithOneNameTheLastCounts)
{
    const auto json = jsonDocument::read(R"({"a":1,"a":{"b":7},"b":2,"a":3})");
    ASSERT_TRUE(json);
    EXPECT_EQ(3U, numberOf(*json, "a"));
}

TEST(JsonDocument, IsNoneOfOtherTexts)
{
    for (const char* text : {"", " ", "{", "[1,]", "{\"a\":}", "{} {}", "{'a':1}", "\"\xFF\"", "nul", "01", "[1]x"}) {
        EXPECT_FALSE(jsonDocument::read(text)) << text;
    }
}

TEST(JsonDocument, CanBeDeep)
{
    constexpr std::size_t levels = 1'000'000;
    const auto json = jsonDocument::read(std::string(levels, '[') + std::string(levels, ']'));
    ASSERT_TRUE(json);
    EXPECT_EQ(1U, json->root().items().size());
}

} // namespace
} // namespace kest::test
