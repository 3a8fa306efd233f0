/// The width proof behind a hub: the hub belongs to it alone, and its reads are counted.
#include "tools/common/widthproof.h"

#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/host/fakekernel.h"
#include "tests/host/iic_support.h"
#include "tests/system/iic_clock.h"
#include "tools/common/hublock.h"
#include "tools/common/interrupt.h"

namespace kest::tools
{
namespace
{

using test::FakeChip;

constexpr const char* largePart = "/dev/i2c-7,L,922,80,3,2C0256,A2";

/// Adapter 7 of a made-up kernel, with a hub at 80 that takes both widths. Its part has 256 bytes, and writes a second
/// offset byte like a ferroelectric one.
class WidthProof : public testing::Test
{
protected:
    // ahead of the offset go port and address
    WidthProof() { kernel.chips[0x40] = FakeChip{.memory = test::pattern(256), .offsetBytes = 3, .hubStatus = {0}}; }

    test::OwnConfiguration own;
    test::FakeKernel kernel;
};

TEST_F(WidthProof, WaitsForTheHubThatAnotherHas)
{
    test::DrivenClock clock;
    const hubLock other({"/dev/i2c-7", "L"}, 0x80);
    ASSERT_EQ(0, other.error());
    const widthFinding found = proveWidth(parseDeviceText(largePart), 0);
    EXPECT_EQ(widthVerdict::notDecidable, found.verdict);
    EXPECT_EQ("the hub can't be had", found.seen);
    EXPECT_EQ(EBUSY, found.error);
    EXPECT_LE(std::chrono::seconds(10), clock.now());
    EXPECT_TRUE(kernel.log.empty());
}

TEST_F(WidthProof, HasTheHubWhenAnotherLetsItGo)
{
    test::DrivenClock clock;
    auto other = std::make_unique<hubLock>(busName{"/dev/i2c-7", "L"}, 0x80);
    clock.inPause = [&other](int) { other.reset(); };
    EXPECT_NE(0U, proveWidth(parseDeviceText(largePart), 0).reads);
    EXPECT_FALSE(kernel.log.empty());
}

TEST_F(WidthProof, ASignalEndsTheWaitForAHub)
{
    test::DrivenClock clock;
    const hubLock other({"/dev/i2c-7", "L"}, 0x80);
    const interruptWatch signals;
    clock.inPause = [](int) {
        kill(getpid(), SIGTERM);
        while (pauseUnlessInterrupted(1'000'000)) {}
    };
    try {
        static_cast<void>(proveWidth(parseDeviceText(largePart), 0));
        ADD_FAILURE() << "no interruption";
    } catch (const failure& why) {
        EXPECT_EQ(143, why.code);
    }
    EXPECT_GT(std::chrono::seconds(1), clock.now());
    EXPECT_TRUE(kernel.log.empty());
}

TEST_F(WidthProof, KeepsTheHubForItselfAllTheTime)
{
    test::DrivenClock clock;
    unsigned transfers = 0;
    kernel.beforeTransfer = [&transfers] {
        ++transfers;
        const hubLock other({"/dev/i2c-7", "L"}, 0x80);
        EXPECT_EQ(EBUSY, other.error());
    };
    const widthFinding found = proveWidth(parseDeviceText(largePart), 0);
    EXPECT_EQ(transfers, found.reads);
    kernel.beforeTransfer = nullptr;
    EXPECT_EQ(0, hubLock({"/dev/i2c-7", "L"}, 0x80).error());
}

TEST_F(WidthProof, CountsTheQuestionsToTheHubAmongItsReads)
{
    const widthFinding found = proveWidth(parseDeviceText(largePart), 0);
    EXPECT_EQ(widthVerdict::oneByte, found.verdict) << found.seen;
    EXPECT_FALSE(found.byHub);
    // three questions; then two for 256 bytes, two for each of six places, one across the end, one at the next address;
    // and the 256 bytes once more
    EXPECT_EQ(20U, found.reads);
    EXPECT_EQ(20U, kernel.log.size());
    EXPECT_EQ(test::pattern(256), kernel.chips[0x40].memory);
}

/// 256 bytes take 16 reads, and are read four times when they differ.
TEST_F(WidthProof, NeverReadsMoreThan64TimesBehindAHub)
{
    kernel.longestRead = 17;
    kernel.beforeTransfer = [this] { ++kernel.chips[0x40].memory[200]; };
    const widthFinding found = proveWidth(parseDeviceText(largePart), 0);
    EXPECT_EQ(widthVerdict::notDecidable, found.verdict);
    EXPECT_EQ("more than 64 reads would be needed", found.seen);
    EXPECT_GE(64U, found.reads);
    EXPECT_GE(64U, kernel.log.size());
}

/// Each read of the part fails with a status, which is taken from the hub.
TEST_F(WidthProof, AStatusIsTakenFromTheHubAndCounted)
{
    // three questions that the hub takes, and then a trouble
    kernel.chips[0x40].hubStatus = {0, 0, 0, 6};
    const widthFinding found = proveWidth(parseDeviceText(largePart), 0);
    EXPECT_EQ(widthVerdict::notDecidable, found.verdict);
    // the first read of the part, and that of the status
    EXPECT_EQ(5U, found.reads);
    EXPECT_EQ(5U, kernel.log.size());
    EXPECT_EQ("40R 1", kernel.log.back());
}

} // namespace
} // namespace kest::tools
