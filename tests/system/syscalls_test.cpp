/// How many system calls the library's calls cost on a kernel's bus, from the exported function down to the kernel.
#include <gmock/gmock.h>

#include "kest/kest.h"
#include "platform/errl.h"
#include "tests/host/usedconfiguration.h"
#include "tests/sanitizers.h"
#include "tests/temporaryfolder.h"
#include "tests/tracedcalls.h"

namespace kest::test
{
namespace
{

class SystemCalls : public testing::Test
{
protected:
    void SetUp() override
    {
        if (underSanitizer) {
            GTEST_SKIP() << "the sanitizers make system calls of their own";
        }
    }
    /// The calls that `work` makes, or none: the test is then skipped.
    static TracedCalls callsOf(const std::function<bool()>& work)
    {
        TracedCalls traced = traceCalls(work);
        EXPECT_TRUE(traced.worked || !traced.refusal.empty());
        return traced;
    }

    TemporaryFolder folder{TemporaryFolder::inMemory};
    UsedConfiguration used{makeTracedAdapter(folder.path())};
};

// the node: open, stat, its functions, close; and the transaction
TEST_F(SystemCalls, OfASeepromReadAreThoseOfItsNodeAndItsTransaction)
{
    const TracedCalls traced = callsOf([] {
        constexpr std::array<kest_attributeValue, KEST_ATTR_COUNT> hardware{400, 1, 15, 4, 2, 1};
        tavo_deviceaddress address{.number = 17, .location = "/dev/i2c-0,0,2C0256,A0"};
        unsigned int length = 256;
        unsigned char* data = nullptr;
        const bool read = KEST_seepromRead(address, nullptr, 0, &length, &data, hardware.data()) == nullptr;
        const bool good = read && length == 256 && data[0] == 0 && data[255] == 255;
        tavo_util_free(reinterpret_cast<void**>(&data));
        return good;
    });
    if (!traced.refusal.empty()) {
        GTEST_SKIP() << traced.refusal;
    }
    EXPECT_EQ(5U, traced.numbers.size()) << testing::PrintToString(traced.numbers);
}

// The node and two transactions; the folder of the locks: open, stat, close; the lock's file: open, stat, turnstile,
// lock, turnstile again, whether it is still the one of that name, unlock, close.
TEST_F(SystemCalls, OfAReadOfPinsAreThoseOfItsNodeItsTransactionsAndItsLock)
{
    const TracedCalls traced = callsOf([] {
        unsigned int value = 0;
        return KEST_dpRead("/dev/i2c-0,0,9555,40", 0xFFFF, &value, nullptr, 0) == nullptr && value == 0x0100;
    });
    if (!traced.refusal.empty()) {
        GTEST_SKIP() << traced.refusal;
    }
    EXPECT_EQ(17U, traced.numbers.size()) << testing::PrintToString(traced.numbers);
}

TEST_F(SystemCalls, WorkThatFailsIsNotCountedAsDone)
{
    const TracedCalls traced = traceCalls([] { return false; });
    if (!traced.refusal.empty()) {
        GTEST_SKIP() << traced.refusal;
    }
    EXPECT_FALSE(traced.worked);
    EXPECT_EQ(std::vector<std::uint64_t>{}, traced.numbers);
}

} // namespace
} // namespace kest::test
