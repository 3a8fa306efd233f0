#include "tools/common/number.h"

#include <cstdint>
#include <gtest/gtest.h>

#include "tests/tools/complaint.h"

namespace kest::tools
{
namespace
{

using test::complaint;

TEST(Numbers, DecimalOrAfter0x)
{
    const auto number = [](const std::string& text) { return parseNumber(text, "offset", 0xFFFF); };
    EXPECT_EQ(0U, number("0"));
    EXPECT_EQ(10U, number("010"));
    EXPECT_EQ(255U, number("0xff"));
    EXPECT_EQ(255U, number("0XFF"));
    EXPECT_EQ(65535U, number("65535"));
    for (const char* text : {"", "0x", "-1", "+1", " 1", "1 ", "12a", "ff", "1e3", "0x1G", "99999999999999999999"}) {
        EXPECT_EQ("2 offset '" + std::string(text) + "': expected a decimal number, or a hexadecimal one after 0x",
                  complaint([&] { static_cast<void>(number(text)); }));
    }
    EXPECT_EQ("2 offset '65536': expected 0 to 65535 (0xFFFF)", complaint([&] { static_cast<void>(number("65536")); }));
    EXPECT_EQ("2 count '0': expected 1 to 9 (0x9)",
              complaint([] { static_cast<void>(parseNumber("0", "count", 9, 1)); }));
}

TEST(Numbers, SizesTakeUnits)
{
    const auto size = [](const std::string& text) { return parseSize(text, "length", 1U << 30); };
    EXPECT_EQ(4096U, size("4K"));
    EXPECT_EQ(2097152U, size("2M"));
    EXPECT_EQ(1073741824U, size("1G"));
    EXPECT_EQ(4096U, size("4KiB"));
    EXPECT_EQ(1048576U, size("1MiB"));
    EXPECT_EQ(1073741824U, size("1GiB"));
    EXPECT_EQ(256U, size("0x100"));
    EXPECT_EQ(16384U, size("0x10KiB"));
    EXPECT_EQ(0U, size("0"));
    for (const char* text : {"", "K", "KiB", "4k", "4kB", "4KB", "4kib", "4 KiB", "4KiBs", "-4KiB", "+4", "4.5KiB",
                             "4iB", "4B", "ff", "99999999999999999999"}) {
        EXPECT_EQ("2 length '" + std::string(text) + "': expected a size such as 256, 0x100, 4KiB or 1MiB",
                  complaint([&] { static_cast<void>(size(text)); }));
    }
    EXPECT_EQ("2 length '65K': expected 0 to 65536 (0x10000)",
              complaint([] { static_cast<void>(parseSize("65K", "length", 65536)); }));
    // 2^54 + 1 and 2^34: in bytes they would wrap to 1024 and to 0
    EXPECT_EQ("2 length '18014398509481985K': expected 0 to 65536 (0x10000)",
              complaint([] { static_cast<void>(parseSize("18014398509481985K", "length", 65536)); }));
    EXPECT_EQ("2 length '17179869184GiB': expected 0 to 65536 (0x10000)",
              complaint([] { static_cast<void>(parseSize("17179869184GiB", "length", 65536)); }));
}

TEST(Numbers, Pins)
{
    EXPECT_EQ(0x39U, parsePins("0,3-5", 16));
    EXPECT_EQ(0x8000U, parsePins("15", 16));
    EXPECT_EQ(0xFFFFFFFFU, parsePins("0-31", 32));
    EXPECT_EQ("2 pin '8': expected 0 to 7 (0x7)", complaint([] { static_cast<void>(parsePins("8", 8)); }));
    EXPECT_EQ("2 pin '3': expected 5 to 7 (0x7)", complaint([] { static_cast<void>(parsePins("5-3", 8)); }));
    EXPECT_EQ("2 pin '': expected a decimal number, or a hexadecimal one after 0x",
              complaint([] { static_cast<void>(parsePins("1,", 8)); }));
}

TEST(Numbers, AddressesInBothForms)
{
    EXPECT_EQ("A0 = 0x50", addressText(0xA0));
    EXPECT_EQ("0E = 0x07", addressText(0x0E));
}

} // namespace
} // namespace kest::tools
