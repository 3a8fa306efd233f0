#include <gtest/gtest.h>
#include <string>

#include "platform/netc.h"
#include "tests/host/memory.h"

namespace
{

std::string payloadOf(const NetcMessage& message)
{
    return message.dataPointer() == nullptr ? "none" : std::string(message.dataPointer(), message.dataSize());
}

TEST(NetcMessage, IsEmptyAtFirst)
{
    const NetcMessage message;
    EXPECT_EQ(nullptr, message.dataPointer());
    EXPECT_EQ(0U, message.dataSize());
    EXPECT_EQ(0, message.identifier);
    EXPECT_EQ(0, message.type);
    EXPECT_EQ(0, message.replyFlags);
}

TEST(NetcMessage, KeepsACopyOfTheData)
{
    NetcMessage message;
    std::string data("ab\0c", 4);
    EXPECT_TRUE(message.setData(data.data(), 4));
    data = "gone";
    EXPECT_EQ(std::string("ab\0c", 4), payloadOf(message));
}

TEST(NetcMessage, ReplacesTheDataAlsoByAPartOfItself)
{
    NetcMessage message;
    EXPECT_TRUE(message.setData("abcdef", 6));
    EXPECT_TRUE(message.setData(message.dataPointer() + 2, 3));
    EXPECT_EQ("cde", payloadOf(message));
}

TEST(NetcMessage, KeepsPayloadsOfAnySize)
{
    // one after another, growing and shrinking
    NetcMessage message;
    for (const std::size_t size : {1U, 512U, 513U, 65536U, 512U, 513U, 3U}) {
        const std::string data(size, static_cast<char>('a' + size % 26));
        EXPECT_TRUE(message.setData(data.data(), static_cast<unsigned>(size)));
        EXPECT_EQ(data, payloadOf(message));
    }
}

TEST(NetcMessage, ReplacesALargePayloadByAPartOfItself)
{
    NetcMessage message;
    const std::string data = std::string(600, 'a') + std::string(600, 'b');
    EXPECT_TRUE(message.setData(data.data(), 1200));
    EXPECT_TRUE(message.setData(message.dataPointer() + 300, 600));
    EXPECT_EQ(std::string(300, 'a') + std::string(300, 'b'), payloadOf(message));
    EXPECT_TRUE(message.setData(message.dataPointer() + 299, 2));
    EXPECT_EQ("ab", payloadOf(message));
}

TEST(NetcMessage, NoBytesAreNoPayload)
{
    NetcMessage message;
    EXPECT_TRUE(message.setData("abc", 3));
    EXPECT_TRUE(message.setData("abc", 0));
    EXPECT_EQ("none", payloadOf(message));
    EXPECT_EQ(0U, message.dataSize());
}

TEST(NetcMessage, BytesFromNowhereAreRefusedAndLeaveNoPayload)
{
    NetcMessage message;
    EXPECT_TRUE(message.setData("abc", 3));
    EXPECT_FALSE(message.setData(nullptr, 3));
    EXPECT_EQ("none", payloadOf(message));
    EXPECT_EQ(0U, message.dataSize());
}

TEST(NetcMessage, IsEmptyWithoutMemory)
{
    KEST_SKIP_UNLESS_MEMORY_CAN_FAIL();
    EXPECT_EQ("", kest::test::withoutMemory([] {
                  NetcMessage message;
                  const bool kept = message.setData("abc", 3);
                  return kept == (payloadOf(message) == "abc") && kept == (message.dataSize() == 3) &&
                         kept == (message.dataPointer() != nullptr);
              }));
}

} // namespace
