/// Records of operations: what one process writes, and what another makes of anything that is there.
#include <gtest/gtest.h>

#include "platform/host/iic/operationrecord.h"

namespace kest::host::iic
{
namespace
{

constexpr operationPlace place{.hub = 0x80, .port = 3, .address = 0xA2};

operationRecord someRecord()
{
    return {.process = 4711,
            .user = 1000,
            .sinceMs = 1714564800250,
            .program = "kestctl",
            .doing = "seeprom write",
            .device = "riser-vpd"};
}

std::string withoutPadding(const std::string& text) { return text.substr(0, text.find('\0')); }

TEST(OperationRecord, IsLinesOfTextAndPadding)
{
    const std::string text = operationRecordText(place, someRecord());
    EXPECT_EQ(512U, text.size());
    EXPECT_EQ("kest operation 1\n80 03 A2\n4711\n1000\n1714564800250\nkestctl\nseeprom write\nriser-vpd\n",
              withoutPadding(text));
}

TEST(OperationRecord, IsReadAsItWasWritten)
{
    const auto read = parseOperationRecord(operationRecordText(place, someRecord()), place);
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(4711U, read->process);
    EXPECT_EQ(1000U, read->user);
    EXPECT_EQ(1714564800250, read->sinceMs);
    EXPECT_EQ("kestctl", read->program);
    EXPECT_EQ("seeprom write", read->doing);
    EXPECT_EQ("riser-vpd", read->device);
}

TEST(OperationRecord, OfAnotherPlaceIsNone)
{
    const std::string text = operationRecordText(place, someRecord());
    EXPECT_FALSE(parseOperationRecord(text, {.hub = 0x80, .port = 4, .address = 0xA2}).has_value());
    EXPECT_FALSE(parseOperationRecord(text, {.hub = 0, .port = 0, .address = 0xA2}).has_value());
}

TEST(OperationRecord, LinesInATextDoNotMakeFurtherLines)
{
    operationRecord record = someRecord();
    record.doing = "read\nas root\x1b[2J\x7f";
    EXPECT_EQ("read?as root?[2J?", parseOperationRecord(operationRecordText(place, record), place)->doing);
}

TEST(OperationRecord, LongTextsAreCutAndTheRestIsThere)
{
    operationRecord record = someRecord();
    record.program = std::string(5000, 'p');
    record.doing = std::string(5000, 'd');
    record.device = std::string(5000, 'v');
    const auto read = parseOperationRecord(operationRecordText(place, record), place);
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(std::string(120, 'p'), read->program);
    EXPECT_EQ(std::string(120, 'd'), read->doing);
    EXPECT_EQ(std::string(120, 'v'), read->device);
}

TEST(OperationRecord, AnythingElseIsNoneOrHasEmptyFields)
{
    EXPECT_FALSE(parseOperationRecord("", place).has_value());
    EXPECT_FALSE(parseOperationRecord(std::string(512, '\0'), place).has_value());
    EXPECT_FALSE(parseOperationRecord(std::string(512, '\n'), place).has_value());
    EXPECT_FALSE(parseOperationRecord("kest operation 2\n80 03 A2\n", place).has_value());
    const auto begun = parseOperationRecord("kest operation 1\n80 03 A2", place);
    ASSERT_TRUE(begun.has_value());
    EXPECT_EQ(0U, begun->process);
    EXPECT_EQ("", begun->device);
    const auto wrong = parseOperationRecord(
        "kest operation 1\n80 03 A2\n-1\n99999999999\n12x\n" + std::string(400, 'p') + "\nd\nv\n", place);
    ASSERT_TRUE(wrong.has_value());
    EXPECT_EQ(0U, wrong->process);
    EXPECT_EQ(0U, wrong->user);
    EXPECT_EQ(0, wrong->sinceMs);
    EXPECT_EQ(120U, wrong->program.size());
    EXPECT_EQ("d", wrong->doing);
}

} // namespace
} // namespace kest::host::iic
