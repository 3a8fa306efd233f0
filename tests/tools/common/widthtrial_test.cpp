/// The trial write of a width proof while transfers fail: one by one, and all from one on.
#include "tools/common/widthtrial.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>
#include <gtest/gtest.h>

#include "tests/host/fakekernel.h"
#include "tests/host/iic_support.h"

namespace kest::tools
{
namespace
{

constexpr std::uint8_t blank = 0xFF;
constexpr std::uint8_t wanted = 0x5A;

/// Adapter 7 of a made-up kernel with a blank part, which writes a second offset byte like a ferroelectric one when it
/// takes one.
class WidthTrial : public testing::Test
{
protected:
    struct Case {
        std::size_t takes; ///< offset bytes of the part
        const char* claim;
        std::uint32_t offset;

        [[nodiscard]] bool isRight() const { return (takes == 2) == (claim[0] == '2'); }
    };
    static constexpr std::array<Case, 4> cases{
        {{1, "1C0002", 0x23}, {1, "2C0256", 0x123}, {2, "1C0002", 0x23}, {2, "2C0256", 0x123}}};

    [[nodiscard]] std::vector<std::uint8_t>& memory() { return kernel.chips[0x50].memory; }
    [[nodiscard]] bool isBlank() { return std::ranges::count(memory(), blank) == std::ranges::ssize(memory()); }

    trialResult tryIt(const Case& each)
    {
        kernel.chips[0x50] = {.memory = std::vector(each.takes == 1 ? 256U : 32768U, blank), .offsetBytes = each.takes};
        seeprom chip(parseDeviceText(fmt::format("/dev/i2c-7,L,{},A0", each.claim)), {.writeCycleMs = 1});
        return tryOut(chip, {.offset = each.offset, .before = blank, .wanted = wanted}, firstContent(256, blank));
    }
    /// What holds whatever fails.
    void expectTruth(const Case& each, const trialResult& result, const std::string& where)
    {
        if (result.isBack) {
            EXPECT_TRUE(isBlank()) << where;
        }
        switch (result.end) {
        case trialEnd::asClaimed:
            EXPECT_TRUE(each.isRight()) << where;
            EXPECT_EQ(wanted, memory().at(each.offset)) << where;
            EXPECT_EQ(1, std::ranges::count_if(memory(), [](std::uint8_t byte) { return byte != blank; })) << where;
            break;
        case trialEnd::inOther:
            EXPECT_FALSE(each.isRight()) << where;
            break;
        case trialEnd::goesOn:
            ADD_FAILURE() << where;
            break;
        case trialEnd::unchanged:
            EXPECT_TRUE(result.isBack) << where;
            break;
        case trialEnd::notKnown:
            EXPECT_TRUE(result.trouble || !result.seen.empty()) << where;
        }
    }

    test::OwnConfiguration own;
    test::FakeKernel kernel;
};

TEST_F(WidthTrial, ShowsTheWidthWhenNothingFails)
{
    constexpr std::array ends{trialEnd::asClaimed, trialEnd::inOther, trialEnd::unchanged, trialEnd::asClaimed};
    for (std::size_t index = 0; index < cases.size(); ++index) {
        const trialResult result = tryIt(cases[index]);
        EXPECT_EQ(ends[index], result.end) << index;
        EXPECT_EQ(ends[index] != trialEnd::asClaimed, result.isBack) << index;
        expectTruth(cases[index], result, std::to_string(index));
    }
}

TEST_F(WidthTrial, OneTransferThatFailsChangesNeitherTheResultNorAByte)
{
    for (const Case& each : cases) {
        for (std::size_t failing = 0;; ++failing) {
            kernel.failures.assign(failing, 0);
            kernel.failures.push_back(EIO);
            const std::string where = fmt::format("{} as {}, transfer {}", each.takes, each.claim, failing);
            const trialResult result = tryIt(each);
            if (!kernel.failures.empty()) {
                EXPECT_LT(5U, failing) << where;
                break;
            }
            expectTruth(each, result, where);
            EXPECT_TRUE(result.end == trialEnd::asClaimed || result.isBack) << where;
        }
    }
}

TEST_F(WidthTrial, NothingIsCalledPutBackThatIsNotWhenAllTransfersFailFromOneOn)
{
    for (const Case& each : cases) {
        for (std::size_t failing = 0;; ++failing) {
            kernel.failures.assign(failing, 0);
            kernel.lastingFailure = EIO;
            const std::string where = fmt::format("{} as {}, from transfer {} on", each.takes, each.claim, failing);
            const trialResult result = tryIt(each);
            if (!kernel.failures.empty()) {
                EXPECT_LT(5U, failing) << where;
                break;
            }
            expectTruth(each, result, where);
        }
    }
}

TEST_F(WidthTrial, AByteIsTakenBack)
{
    EXPECT_EQ(trialEnd::asClaimed, tryIt(cases[3]).end);
    seeprom chip(parseDeviceText("/dev/i2c-7,L,2C0256,A0"), {.writeCycleMs = 1});
    const trialByte trial{.offset = cases[3].offset, .before = blank, .wanted = wanted};
    kernel.lastingFailure = EIO;
    EXPECT_FALSE(takeBack(chip, trial));
    kernel.lastingFailure = 0;
    EXPECT_TRUE(takeBack(chip, trial));
    EXPECT_TRUE(isBlank());
}

/// Blocks of 256 bytes at 7-bit addresses from 0x50 on, which read on into each other.
class WidthTrialBlocks : public testing::Test
{
protected:
    trialResult tryAt(std::uint32_t offset, std::size_t blocks, const char* claim = "1C0002")
    {
        kernel.chips.clear();
        for (std::size_t block = 0; block < blocks; ++block) {
            const auto address = static_cast<std::uint8_t>(0x50 + block);
            kernel.chips[address] = {.memory = std::vector((blocks - block) * 256U, blank), .offsetBytes = 1};
        }
        seeprom chip(parseDeviceText(fmt::format("/dev/i2c-7,L,{},A0", claim)), {.writeCycleMs = 1});
        return tryOut(chip, {.offset = offset, .before = blank, .wanted = wanted}, firstContent(256, blank));
    }
    [[nodiscard]] bool isBlank()
    {
        return std::ranges::all_of(kernel.chips, [](const auto& each) {
            return std::ranges::all_of(each.second.memory, [](std::uint8_t byte) { return byte == blank; });
        });
    }

    test::OwnConfiguration own;
    test::FakeKernel kernel;
};

TEST_F(WidthTrialBlocks, ShowThatThePartGoesOnWhereverTheByteIs)
{
    for (const std::uint32_t offset : {0U, 7U, 8U, 0x41U, 0xFFU}) {
        const trialResult result = tryAt(offset, 2);
        EXPECT_EQ(trialEnd::goesOn, result.end) << offset;
        EXPECT_EQ(partEnd::nextAddress, result.reach) << offset;
        EXPECT_TRUE(result.isBack) << offset;
        EXPECT_TRUE(isBlank()) << offset;
        const trialResult alone = tryAt(offset, 1);
        EXPECT_EQ(trialEnd::asClaimed, alone.end) << offset;
        EXPECT_EQ(partEnd::at256, alone.reach) << offset;
    }
    const trialResult other = tryAt(0x123, 2, "2C0256");
    EXPECT_EQ(trialEnd::inOther, other.end);
    EXPECT_EQ(partEnd::nextAddress, other.reach);
    EXPECT_TRUE(isBlank());
}

TEST_F(WidthTrialBlocks, AnAdapterThatTakesNoReadSoFarLeavesTheEndOpen)
{
    kernel.longestRead = 64;
    kernel.mostMessages = 2;
    EXPECT_EQ(trialEnd::goesOn, tryAt(55, 2).end);
    const trialResult result = tryAt(56, 2);
    EXPECT_EQ(trialEnd::asClaimed, result.end);
    EXPECT_EQ(partEnd::notKnown, result.reach);
}

TEST_F(WidthTrialBlocks, OneTransferThatFailsHidesNothing)
{
    for (std::size_t failing = 0;; ++failing) {
        kernel.failures.assign(failing, 0);
        kernel.failures.push_back(EIO);
        const trialResult result = tryAt(0, 2);
        if (!kernel.failures.empty()) {
            EXPECT_LT(10U, failing);
            break;
        }
        EXPECT_NE(trialEnd::asClaimed, result.end) << failing;
        EXPECT_TRUE(result.isBack) << failing;
        EXPECT_TRUE(isBlank()) << failing;
    }
}

TEST(WidthTrialChoice, TakesTheFirstByteThatShowsTheWidth)
{
    const firstContent first(256, blank);
    const std::vector<unsigned char> old(4, blank);
    const std::vector<unsigned char> bytes{blank, 0x5A, 0x5B, 0x5C};
    const auto small = chooseTrial(1, first, {0x10, 4}, old, bytes);
    ASSERT_TRUE(small.has_value());
    EXPECT_EQ(0x11U, small->offset);
    EXPECT_EQ(0x5A, small->wanted);
    // behind the upper byte E0 a part with one offset byte could take it at another address
    EXPECT_FALSE(chooseTrial(2, first, {0xE010, 4}, old, bytes).has_value());
    EXPECT_TRUE(chooseTrial(2, first, {0xDF10, 4}, old, bytes).has_value());
    EXPECT_FALSE(chooseTrial(2, first, {0x10, 4}, old, old).has_value());
    EXPECT_FALSE(chooseTrial(2, {}, {0x10, 4}, old, bytes).has_value());
}

} // namespace
} // namespace kest::tools
