#include "tools/common/shortpart.h"

#include <algorithm>
#include <gtest/gtest.h>

#include "tests/host/fakekernel.h"
#include "tests/host/iic_support.h"
#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

constexpr const char* asLarge = "/dev/i2c-7,L,2C0256,A0";

/// Adapter 7 of a made-up kernel with a part that takes one offset byte, named as one that takes two.
class ShortPart : public testing::Test
{
protected:
    ShortPart() { kernel.chips[0x50] = {.memory = first, .offsetBytes = 1}; }

    [[nodiscard]] std::vector<std::uint8_t>& memory() { return kernel.chips[0x50].memory; }
    /// Of one byte behind one offset byte.
    [[nodiscard]] std::ptrdiff_t writes() const
    {
        return std::ranges::count_if(kernel.log, [](const std::string& line) {
            return line.starts_with("50W ") && line.find('R') == std::string::npos && line.size() == 8;
        });
    }

    const firstContent first = test::pattern(256);
    test::OwnConfiguration own;
    test::FakeKernel kernel;
    const seeprom chip{parseDeviceText(asLarge), {.writeCycleMs = 1}};
};

TEST_F(ShortPart, IsNamedAsOne) { EXPECT_EQ("/dev/i2c-7,L,1C0002,A0", asShortPart(chip.target()).text); }

TEST_F(ShortPart, ChangesAreToldByTheirOffsets)
{
    const auto change = [this](std::vector<std::size_t> changed) {
        firstAgain now{.bytes = first};
        for (const std::size_t at : changed) {
            now.bytes->at(at) ^= 1;
        }
        return changeOf(now, first, {0, 16});
    };
    EXPECT_EQ(firstChange::none, change({}));
    EXPECT_EQ(firstChange::there, change({16}));
    EXPECT_EQ(firstChange::elsewhere, change({16, 17}));
    EXPECT_EQ(firstChange::notKnown, changeOf({}, first, {0, 16}));
}

TEST_F(ShortPart, BytesThatChangedArePutBackWhereverTheyAre)
{
    memory()[0] = 0x11;
    memory()[1] = 0x22;
    memory()[255] = 0x33;
    EXPECT_TRUE(putBack(chip, first));
    EXPECT_EQ(first, memory());
    EXPECT_EQ(3, writes());
    EXPECT_TRUE(putBack(chip, first));
    EXPECT_EQ(3, writes());
}

TEST_F(ShortPart, APartThatTakesNoByteIsNotSentAllThatDiffer)
{
    // with two offset bytes
    const std::vector<std::uint8_t> other(32768, 0x5A);
    kernel.chips[0x50] = {.memory = other, .offsetBytes = 2};
    EXPECT_FALSE(putBack(chip, first));
    // one in each attempt
    EXPECT_EQ(3, writes());
    EXPECT_EQ(other, memory());
}

TEST_F(ShortPart, ManyBytesThatChangedArePutBack)
{
    memory() = std::vector<std::uint8_t>(256, 0x5A);
    EXPECT_TRUE(putBack(chip, first));
    EXPECT_EQ(first, memory());
}

TEST_F(ShortPart, TheEndOfAPartIsThatOfTwoLooksInARow)
{
    kernel.chips[0x51].memory = std::vector<std::uint8_t>(256, 0xFF);
    kernel.chips[0x51].offsetBytes = 1;
    EXPECT_EQ(partEnd::at256, findShortEnd(chip, first, startBytes));
    const std::vector<std::uint8_t> next(256, 0xFF);
    memory().insert(memory().end(), next.begin(), next.end());
    kernel.failures = {0, 0, EIO};
    EXPECT_EQ(partEnd::nextAddress, findShortEnd(chip, first, startBytes));
    kernel.lastingFailure = EIO;
    EXPECT_FALSE(findShortEnd(chip, first, startBytes).has_value());
}

TEST_F(ShortPart, SingleReadsThatFailAreRepeated)
{
    kernel.failures = {EIO, 0, EIO, EIO};
    EXPECT_EQ(first, readFirstAgain(chip).bytes);
    kernel.lastingFailure = EIO;
    const firstAgain none = readFirstAgain(chip);
    EXPECT_FALSE(none.bytes.has_value());
    EXPECT_FALSE(none.unlike);
}

TEST_F(ShortPart, ReadsThatCanNotBeOfTheSameBytesAreUnlike)
{
    std::uint8_t seed = 0;
    kernel.beforeTransfer = [this, &seed] {
        std::uint32_t state = ++seed;
        for (std::uint8_t& byte : memory()) {
            state = state * 1664525U + 1013904223U;
            byte = static_cast<std::uint8_t>(state >> 24);
        }
    };
    EXPECT_TRUE(readFirstAgain(chip).unlike);
}

TEST_F(ShortPart, OneThatDoesNotAnswerIsAFailure)
{
    readBehindOne(chip);
    EXPECT_EQ("50W 00 50R 1", kernel.log.back());
    kernel.chips.clear();
    try {
        readBehindOne(chip);
        ADD_FAILURE() << "no failure";
    } catch (const failure& why) {
        EXPECT_EQ(exitAbsent, why.code);
        EXPECT_EQ(asLarge, why.device);
    }
}

} // namespace
} // namespace kest::tools
