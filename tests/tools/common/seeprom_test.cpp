#include "tools/common/seeprom.h"

#include <gtest/gtest.h>

#include "tests/tools/complaint.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{
namespace
{

using test::complaint;

TEST(Ranges, AreCheckedAgainstTheCapacity)
{
    const auto range = [](const char* text, std::uint64_t offset, std::optional<std::uint64_t> length) {
        const byteRange checked = checkedRange(parseDeviceText(text), offset, length);
        return std::to_string(checked.offset) + " " + std::to_string(checked.length);
    };
    const auto wrong = [&range](const char* text, std::uint64_t offset, std::optional<std::uint64_t> length) {
        return complaint([&] { range(text, offset, length); });
    };
    EXPECT_EQ("0 22016", range("sim:p,L,172,A0", 0, std::nullopt));
    EXPECT_EQ("22015 1", range("sim:p,L,172,A0", 22015, 1));
    EXPECT_EQ("2 offset 22016 (0x5600) is past the end: the device holds 22016 bytes",
              wrong("sim:p,L,172,A0", 22016, std::nullopt));
    EXPECT_EQ("2 22016 bytes at offset 1 pass the end: the device holds 22016 bytes",
              wrong("sim:p,L,172,A0", 1, 22016));
    EXPECT_EQ("100 156", range("sim:p,L,1C0002,A4", 100, std::nullopt));
    EXPECT_EQ("2 length 0: there is nothing to transfer", wrong("sim:p,L,1C0002,A4", 0, 0));
}

} // namespace
} // namespace kest::tools
