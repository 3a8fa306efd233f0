/// The text that a traced line becomes when it is read.
#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>

#include "platform/host/trace/collect.h"
#include "tests/host/trace_support.h"

namespace kest::test
{
namespace
{

class TraceRender : public ::testing::Test
{
protected:
    TraceRender() : ring(newRing("render")) {}

    /// The text of the record written last.
    static std::string latest()
    {
        const auto records = recordsOf("render");
        return records.empty() ? "none" : records.back().text;
    }

    trace_wobu_descriptor ring;
};

#define EXPECT_TRACED(text, ...)                                                                                       \
    do {                                                                                                               \
        trace_wobu_write_all(ring, 1, __VA_ARGS__);                                                                    \
        EXPECT_EQ(text, latest());                                                                                     \
    } while (false)

TEST_F(TraceRender, EveryFormatOfTheLibrary)
{
    EXPECT_TRACED(" kest_wobuClose", " %s", 1, 0, "kest_wobuClose");
    EXPECT_TRACED(" kest_wobuOpen,2", " %s,%d", 1, 0, "kest_wobuOpen", 2);
    EXPECT_TRACED(" kest_wobuRead,1f", " %s,%x", 1, 0, "kest_wobuRead", 0x1F);
    EXPECT_TRACED(" KEST_dpRead,/dev/i2c-1,0", " %s,%s", 1, 0, "KEST_dpRead", "/dev/i2c-1,0");
    EXPECT_TRACED(" kestProcessMsg,  ab", " %s,%4x", 1, 0, "kestProcessMsg", 0xAB);
    EXPECT_TRACED(" kestProcessMsg,12,-13", " %s,%d,%d", 1, 0, "kestProcessMsg", 12, -13);
    EXPECT_TRACED(" kestProcessMsg,ABCDEF01,7", " %s,%X,%X", 1, 0, "kestProcessMsg", 0xABCDEF01u, 7u);
    EXPECT_TRACED(" reset,a,b", " %s,%s,%s", 1, 0, "reset", "a", "b");
    EXPECT_TRACED(" reset,1,a,b", " %s,%d,%s,%s", 1, 0, "reset", 1, "a", "b");
    EXPECT_TRACED(" kestProcessMsg,   1,8001,13", " %s,%4x,%4x,%d", 1, 0, "kestProcessMsg", 1, 0x8001, 13);
    EXPECT_TRACED(" thermal,19800000,19,0,/dev/i2c-2", " %s,%x,%x,%x,%s", 1, 0, "thermal", 0x19800000, 0x19, 0,
                  "/dev/i2c-2");
    EXPECT_TRACED(" detect,sim:planar,1,2,3,4", " %s,%s,%x,%x,%x,%x", 1, 0, "detect", "sim:planar", 1, 2, 3, 4);
}

TEST_F(TraceRender, FlagsAndWidths)
{
    EXPECT_TRACED("[    7][7    ][00007]", "[%5d][%-5d][%05d]", 1, 0, 7, 7, 7);
    EXPECT_TRACED("[+7][ 7][0x1f][017]", "[%+d][% d][%#x][%#o]", 1, 0, 7, 7, 0x1F, 15);
    EXPECT_TRACED("[   ab][ab   ][a]", "[%5s][%-5s][%.1s]", 1, 0, "ab", "ab", "ab");
    EXPECT_TRACED("[   42][42   ][  abc]", "[%*d][%*d][%*.*s]", 1, 0, 5, 42, -5, 42, 5, 3, "abcdef");
    EXPECT_TRACED("[x][  y]", "[%c][%3c]", 1, 0, 'x', 'y');
    EXPECT_TRACED("100%", "%d%%", 1, 0, 100);
}

TEST_F(TraceRender, LengthModifiers)
{
    EXPECT_TRACED("-1 255 -1 65535", "%hhd %hhu %hd %hu", 1, 0, static_cast<signed char>(-1),
                  static_cast<unsigned char>(255), static_cast<short>(-1), static_cast<unsigned short>(65535));
    EXPECT_TRACED("-2147483648 4294967295", "%d %u", 1, 0, INT_MIN, UINT_MAX);
    EXPECT_TRACED("-5 4000000000 -6", "%ld %lu %li", 1, 0, -5L, 4000000000UL, -6L);
    EXPECT_TRACED("-9223372036854775808 18446744073709551615 FFFFFFFFFFFFFFFF", "%lld %llu %llX", 1, 0, LLONG_MIN,
                  ULLONG_MAX, ULLONG_MAX);
    EXPECT_TRACED("4000000000 -3", "%zu %zd", 1, 0, std::size_t{4000000000U}, static_cast<ssize_t>(-3));
    EXPECT_TRACED("0x1234", "%p", 1, 0, reinterpret_cast<void*>(0x1234));
}

TEST_F(TraceRender, TextsFromOutsideAreEscaped)
{
    EXPECT_TRACED(" f,a\\x0ab\\x1b[31m\\x5c\\xff", " %s,%s", 1, 0, "f", "a\nb\x1b[31m\\\xff");
}

TEST_F(TraceRender, NullTextIsNamed)
{
    const char* nothing = nullptr;
    // hidden from the compiler, which checks formats
    asm volatile("" : "+r"(nothing));
    EXPECT_TRACED(" f,(null)", " %s,%s", 1, 0, "f", nothing);
}

TEST_F(TraceRender, TextsAreCopied)
{
    char text[] = "before";
    trace_wobu_write_all(ring, 1, " %s", 1, 0, text);
    text[0] = 'X';
    EXPECT_EQ(" before", latest());
}

TEST_F(TraceRender, LongTextsAreCut)
{
    const std::string longText(300, 'a');
    EXPECT_TRACED(" f," + std::string(255, 'a') + ",7", " %s,%s,%d", 1, 0, "f", longText.c_str(), 7);
}

TEST_F(TraceRender, WhatDoesNotFitARecordIsMarked)
{
    const std::string longText(255, 'b');
    const char* text = longText.c_str();
    trace_wobu_write_all(ring, 1, "%s%s%s%s%s", 1, 0, text, text, text, text, text);
    const auto record = recordsOf("render").back();
    EXPECT_TRUE(record.cut);
    // 992 bytes of payload hold the format and three texts of 256
    EXPECT_EQ(std::string(3 * 255, 'b') + "%s%s", record.text);
}

/// A caller whose format the compiler cannot check.
void writeUnchecked(trace_wobu_descriptor ring, const char* format, int number)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    trace_wobu_write_all(ring, 1, format, 1, 0, number, number);
#pragma GCC diagnostic pop
}

TEST_F(TraceRender, WhatCannotBeFormattedIsShownUnchanged)
{
    writeUnchecked(ring, "%d %f %d", 3);
    EXPECT_EQ("3 %f %d", latest());
    writeUnchecked(ring, "%d %", 3);
    EXPECT_EQ("3 %", latest());
    writeUnchecked(ring, "%d %ls", 3);
    EXPECT_EQ("3 %ls", latest());
    writeUnchecked(ring, "%300d|", 3);
    // no wider than 255
    EXPECT_EQ(std::string(254, ' ') + "3|", latest());
}

TEST_F(TraceRender, LineHasTimeThreadHashAndSourceLine)
{
    host::traceRecord record;
    record.timeNs = 1'700'000'000'123'456'789u;
    record.thread = 3;
    record.hash = 0x77E7226A;
    record.line = 523;
    record.text = " kest_wobuOpen,2";
    EXPECT_EQ("22:13:20.123456 3 77E7226A 523 kest_wobuOpen,2", host::renderRecord(record));
    record.cut = true;
    EXPECT_EQ("22:13:20.123456 3 77E7226A 523 kest_wobuOpen,2...", host::renderRecord(record));
}

TEST_F(TraceRender, BinaryRecords)
{
    struct {
        std::uint16_t size = 5, tag = 0x4644;
        std::uint32_t hash = 0x080C87FA, line = 99;
    } const header;
    const std::array<std::uint8_t, 5> data{1, 2, 0xAB, 0xCD, 0xEF};
    trace_wobu_write2(ring, 0, 12, &header, 5, data.data());
    auto record = recordsOf("render").back();
    EXPECT_TRUE(record.binary);
    EXPECT_EQ(0x080C87FAu, record.hash);
    EXPECT_EQ(99u, record.line);
    EXPECT_EQ(5u, record.dataSize);
    EXPECT_EQ((std::vector<std::uint8_t>{1, 2, 0xAB, 0xCD, 0xEF}), record.data);
    EXPECT_EQ(12u, record.header.size());
    EXPECT_FALSE(record.cut);
    record.timeNs = 0;
    record.thread = 1;
    EXPECT_EQ("00:00:00.000000 1 080C87FA 99 data 5: 0102abcd ef", host::renderRecord(record));
    EXPECT_EQ("00:00:00.000000 1 080C87FA 99 data 5: 0102 ...", host::renderRecord(record, 2));
}

TEST_F(TraceRender, BinaryRecordsWithoutAnythingOrWithTooMuch)
{
    trace_wobu_write2(ring, 0, 0, nullptr, 0, nullptr);
    EXPECT_EQ(0u, recordsOf("render").back().dataSize);
    // no pointers, so no bytes
    trace_wobu_write2(ring, 0, 12, nullptr, 12, nullptr);
    EXPECT_EQ(0u, recordsOf("render").back().data.size());
    const std::vector<std::uint8_t> much(5000, 0x5A);
    trace_wobu_write2(ring, 0, 2, much.data(), 5000, much.data());
    const auto record = recordsOf("render").back();
    EXPECT_TRUE(record.cut);
    EXPECT_EQ(5000u, record.dataSize);
    EXPECT_EQ(1024u - 32 - 8 - 2, record.data.size());
    EXPECT_EQ(2u, record.header.size());
}

TEST_F(TraceRender, CollectGivesTheLatestWholeLinesThatFit)
{
    trace_wobu_descriptor own = newRing("collect");
    for (int number = 0; number < 50; ++number) {
        trace_wobu_write_all(own, 0x11223344, " %s,%d", 7, 0, "function", 10 + number);
    }
    const std::string text = host::collectTrace("collect", 500);
    const std::string line = "22:13:20.123456 T 11223344 7 function,59\n";
    EXPECT_GE(500u, text.size());
    // one more would not have fitted, unless this thread's number is very long
    EXPECT_LT(500u, text.size() + line.size());
    EXPECT_EQ('\n', text.back());
    std::size_t at = 0;
    for (int number = 60 - static_cast<int>(std::ranges::count(text, '\n')); number < 60; ++number) {
        at = text.find(" 11223344 7 function," + std::to_string(number) + "\n", at);
        ASSERT_NE(std::string::npos, at) << number << "\n" << text;
    }
    EXPECT_EQ("", host::collectTrace("collect", 20));
    EXPECT_EQ("", host::collectTrace("nobodyHasThis", 500));
    EXPECT_EQ("", host::collectTrace(nullptr, 500));
}

} // namespace
} // namespace kest::test
