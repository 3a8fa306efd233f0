#include <memory>
#include <string>

#include "kestseeprom.h"
#include "tests/kest/expected.h"
#include "tests/platform/scripted.h"

using namespace scripted;
using namespace expected;
using namespace kest;

namespace
{

struct KestResetRetry : PlatformTest {
    mern_t handle = platform.openHandle();
    ErrlEntry* entry =
        platform.makeEntry({.returnCode = 0x00001312,
                            .srcs = {{.module = 13, .reason = 0x1312, .word1 = 62, .word3 = 8, .subsystem = 0x55}}});
    unsigned int length = 8;
    Bytes data = counting(8);

    ~KestResetRetry() override { delete entry; }

    void nextRound()
    {
        delete entry;
        platform.reset();
        handle = platform.openHandle();
        entry = platform.makeEntry();
        length = 8;
    }
    void retry(int operation) { kest_wobuResetRetry(handle, entry, &length, data.data(), operation); }
};

TEST_F(KestResetRetry, ARescuedReadIsLoggedAsRecovered)
{
    platform.resets().reads(counting(8, 40));
    retry(0);
    EXPECT_EQ(R"(
mern_iic_reset(h1, 1)
mern_iic_read(h1, 8)
entry1.setSev(0x10)
entry1.commit(0x1300, 0x4000)
delete entry1
)",
              platform.calls());
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(8u, length);
    EXPECT_EQ(counting(8, 40), data);
    ASSERT_EQ(1u, platform.lines(kindTrace).size());
    EXPECT_NE(std::string::npos, platform.traces().find("\" %s,%x\", \"kest_wobuResetRetry\", 0x1312)"));
}

TEST_F(KestResetRetry, ARescuedWriteIsLoggedAsRecovered)
{
    platform.resets().writes();
    retry(1);
    EXPECT_EQ(R"(
mern_iic_reset(h1, 1)
mern_iic_write(h1, 8 bytes: 00 01 02 03 04 05 06 07)
entry1.setSev(0x10)
entry1.commit(0x1300, 0x4000)
delete entry1
)",
              platform.calls());
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(8u, length);
}

TEST_F(KestResetRetry, AReadThatFailsAgainJoinsTheFirstFailure)
{
    platform.resets().readsShort(counting(3), 5).capturesFfdc().configuresReading(word(3));
    retry(0);
    EXPECT_EQ("\nmern_iic_reset(h1, 1)\nmern_iic_read(h1, 8)\n" + newEntry(2, {13, 0x1312, 5, 3, 8, 0, 0x55}) +
                  returnCode(2, 0x00001312) + callout(2) + capture() +
                  "mern_iic_config(h1, 1, 15, 4 bytes)\n"
                  "entry1.addSRC(0x1300, SRC 0 of entry2)\n"
                  "delete entry2\n" +
                  softwareError(1, 0x00001312, 31, 1641),
              platform.calls());
    EXPECT_NE(std::string::npos, platform.traces().find("\" %s,%d\", \"kest_wobuResetRetry\", 0)"));
    EXPECT_NE(nullptr, entry);
    EXPECT_EQ(3u, length);
    EXPECT_EQ(0, platform.commits());
}

TEST_F(KestResetRetry, AWriteThatFailsAgainJoinsTheFirstFailure)
{
    platform.resets().writesShort(2, 6).capturesFfdc();
    retry(1);
    EXPECT_EQ("\nmern_iic_reset(h1, 1)\nmern_iic_write(h1, 8 bytes: 00 01 02 03 04 05 06 07)\n" +
                  newEntry(2, {18, 0x1311, 6, 2, 0, 0, 0x55}) + returnCode(2, 0x40001311) + callout(2) + capture() +
                  "entry1.addSRC(0x1300, SRC 0 of entry2)\n"
                  "delete entry2\n" +
                  softwareError(1, 0x40001311, 31, 1641),
              platform.calls());
    EXPECT_NE(std::string::npos, platform.traces().find("\" %s,%d\", \"kest_wobuResetRetry\", 1)"));
    EXPECT_NE(std::string::npos, platform.traces().find("\" %s,%x\", \"kest_wobuResetRetry\", 0x40001311)"));
    EXPECT_NE(nullptr, entry);
    EXPECT_EQ(2u, length);
}

TEST_F(KestResetRetry, ATimeOutAgainIsNotRetriedAgain)
{
    platform.resets().failsRead(62).capturesFfdc().configuresReading(word(3));
    retry(0);
    EXPECT_EQ(
        "\nmern_iic_reset(h1, 1)\nmern_iic_read(h1, 8)\nmern_iic_ffdc_extract(h1, 0)\nmern_iic_ffdc_unlock(h1, 0)\n"
        "mern_iic_config(h1, 1, 15, 4 bytes)\n",
        platform.layerCalls());
    EXPECT_NE(nullptr, entry);
}

TEST_F(KestResetRetry, AResetThatFailsJoinsTheFirstFailureWithoutATransfer)
{
    for (int error = 0; error <= 133; ++error) {
        SCOPED_TRACE(error);
        nextRound();
        platform.failsReset(error).capturesFfdc();
        retry(0);
        // one class for every errno, a deadlock included
        EXPECT_EQ("\nmern_iic_reset(h1, 1)\n" +
                      newEntry(2, {31, 0x1328, static_cast<std::uint32_t>(error), 0, 0, 0, 0x81, "kestseeprom"}) +
                      returnCode(2, 0x80001328) + callout(2) + capture() +
                      "entry1.addSRC(0x1300, SRC 0 of entry2)\n"
                      "delete entry2\n" +
                      softwareError(1, 0x80001328, 31, 1641),
                  platform.calls());
        // beside those of the capture and of the end
        EXPECT_EQ(1u, platform.lines(kindTrace).size() - 2);
        EXPECT_NE(std::string::npos, platform.traces().find(line("\" %%s,%%d\", \"kest_wobuResetRetry\", %d)", error)));
        EXPECT_NE(nullptr, entry);
        EXPECT_EQ(8u, length);
        EXPECT_EQ(0, platform.commits());
    }
}

TEST_F(KestResetRetry, AResetThatFailsWithoutMemoryForItsEntryRescuesNothing)
{
    for (const int operation : {0, 1}) {
        nextRound();
        platform.failEntryAllocation().failsReset(5).capturesFfdc();
        retry(operation);
        EXPECT_EQ("\nmern_iic_reset(h1, 1)\nno memory for an entry\n" + capture() +
                      softwareError(1, 0x80001328, 31, 1641),
                  platform.log(kindLayer | kindEntry));
        // the entry of the first failure
        ASSERT_NE(nullptr, entry);
        EXPECT_EQ(8u, length);
        EXPECT_EQ(0, platform.commits());
    }
}

TEST_F(KestResetRetry, AResetIsFailedByANegativeResultAlone)
{
    platform.failsReset(5, 1).reads(counting(8));
    retry(0);
    EXPECT_EQ("\nmern_iic_reset(h1, 1)\nmern_iic_read(h1, 8)\n", platform.layerCalls());
    EXPECT_EQ(nullptr, entry);
}

TEST_F(KestResetRetry, ARetryThatEndsInADeadlockCountsAsDone)
{
    platform.resets().failsRead(35).capturesFfdc();
    retry(0);
    EXPECT_EQ("\nmern_iic_reset(h1, 1)\nmern_iic_read(h1, 8)\n" + newEntry(2, {13, 0x130D, 35, 8, 0, 0, 0x81}) +
                  returnCode(2, 0x8000130D) + callout(2) + capture() +
                  "entry2.commit(0x1300, 0x2000)\n"
                  "delete entry2\n"
                  "entry1.setSev(0x10)\n"
                  "entry1.commit(0x1300, 0x4000)\n"
                  "delete entry1\n",
              platform.calls());
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(0u, length);
}

TEST_F(KestResetRetry, AnyOtherOperationOnlyResets)
{
    for (const int operation : {-1, 2, 100}) {
        nextRound();
        platform.resets();
        retry(operation);
        EXPECT_EQ(R"(
mern_iic_reset(h1, 1)
entry1.setSev(0x10)
entry1.commit(0x1300, 0x4000)
delete entry1
)",
                  platform.calls());
        EXPECT_EQ(nullptr, entry);
        EXPECT_EQ(8u, length);
    }
}

TEST_F(KestResetRetry, AFailedWriteRetryKeepsTheFirstReturnCode)
{
    platform.resets().failsWrite(5).capturesFfdc();
    retry(1);
    ASSERT_EQ(2u, platform.entry(1).srcs.size());
    EXPECT_EQ((Src{.module = 18, .reason = 0x1314, .word1 = 5, .subsystem = 0x55}), platform.entry(1).srcs[1]);
    // from the first failure
    EXPECT_EQ(0x00001312u, platform.entry(1).returnCode);
}

} // namespace
