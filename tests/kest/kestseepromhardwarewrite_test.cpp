#include "tests/kest/seepromengine.h"

using namespace seepromengine;

namespace
{

struct KestSeepromHardwareWrite : SeepromEngine {
    KestSeepromHardwareWrite() : SeepromEngine(false) {}

    /// A write of 4 bytes to the start, up to the write itself.
    Platform& opened() { return platform.opens().configures(2); }
    void writeStart(const kest_attributeValue* attributes = defaults)
    {
        transfer("sim:planar,L,2C0256,A0", 0, 4, attributes);
    }

    static constexpr char openedLines[] = "\nMernInitialize(0x80000000)\n"
                                          "mern_iic_open(node -1, \"sim:planar\", 0x1002)\n"
                                          "mern_iic_config(h1, 2, 19, block: speed 400, address 0xA0, offset bytes 2, "
                                          "timeout 2124, write cycle 15, page 64, "
                                          "flags 0xFFFB0001, busy wait 1000)\n"
                                          "mern_iic_config(h1, 2, 2, 0x190)\n";
    static constexpr char writeLine[] = "mern_iic_write(h1, 4 bytes: 00 01 02 03)\n";

    static std::string timedOut(unsigned moved)
    {
        return openedLines + std::string(writeLine) +
               failureLines(1, failure({18, 0x130D, 0x1314, true, moved, moved, moved}, 62)) +
               "mern_iic_reset(h1, 1)\n";
    }
};

TEST_F(KestSeepromHardwareWrite, GoesThroughItsSteps)
{
    scriptSteps();
    platform.closes();
    transferSteps();
    EXPECT_EQ("\n" + stepLines() + "usleep(15000)\nmern_iic_close(h1)\n", platform.calls());
    EXPECT_EQ("\n", platform.traces());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(32u, length);
}

TEST_F(KestSeepromHardwareWrite, ToTheStartDoesNotSeek)
{
    opened().writes().closes();
    writeStart();
    EXPECT_EQ(openedLines + std::string(writeLine) + "usleep(15000)\nmern_iic_close(h1)\n", platform.calls());
}

TEST_F(KestSeepromHardwareWrite, WaitsTheCallersWriteCycle)
{
    const kest_attributeValue attributes[6] = {400, 1, 5, 1, 2, 1};
    opened().writes().closes();
    writeStart(attributes);
    EXPECT_EQ(std::vector<unsigned>{5000}, platform.sleeps());
}

TEST_F(KestSeepromHardwareWrite, CountsThePagesInItsTimeOut)
{
    const kest_attributeValue attributes[6] = {100, 1, 5, 1, 1, 2};
    opened().writes().closes();
    transfer("sim:planar,0,1C0002,A4", 0, 64, attributes);
    // 2 blocks of 64 and 8 pages of 5
    EXPECT_NE(std::string::npos,
              platform.layerCalls().find("block: speed 400, address 0xA4, offset bytes 1, timeout 168, write "
                                         "cycle 5, page 8, flags 0xFFFB0000, busy wait 1000"))
        << platform.layerCalls();
}

TEST_F(KestSeepromHardwareWrite, OfNothingIsPassedOn)
{
    for (const char* type : {"1C0002", "2C0032", "2C0064", "2C0128", "2C0256", "2C0512", "172"}) {
        again();
        opened().writes().closes();
        transfer(line("sim:planar,L,%s,A0", type), 0, 0);
        EXPECT_NE(std::string::npos,
                  platform.calls().find("mern_iic_write(h1, 0 bytes)\nusleep(15000)\nmern_iic_close(h1)\n"))
            << platform.calls();
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(0u, length);
    }
}

TEST_F(KestSeepromHardwareWrite, EveryStepReportsEveryErrno) { everyStepReportsEveryErrno(); }

TEST_F(KestSeepromHardwareWrite, ReturnsTheCountThatTheLayerReports)
{
    opened().writesShort(3, 5).capturesFfdc().closes();
    writeStart();
    EXPECT_EQ(3u, length);
    EXPECT_EQ((Src{.module = 18, .reason = 0x1314, .word1 = 5, .word2 = 3, .word3 = 3, .subsystem = 0x55}),
              platform.entry(1).srcs.at(0));
    EXPECT_TRUE(platform.sleeps().empty());
    EXPECT_NE(std::string::npos, platform.traces().find("0x11, 0x4, 0x3, 0x0)"));
}

TEST_F(KestSeepromHardwareWrite, ADeadlockCountsAsDone)
{
    opened().failsWrite(35).capturesFfdc().closes();
    writeStart();
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(0u, length);
    EXPECT_EQ(std::vector<unsigned>{15000}, platform.sleeps());
}

TEST_F(KestSeepromHardwareWrite, ADeadlockNeverReturnsMoreThanWasAskedFor)
{
    opened().writesShort(-1, 35).capturesFfdc().closes();
    writeStart();
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(1, platform.commits());
    EXPECT_EQ(4u, length);
}

TEST_F(KestSeepromHardwareWrite, AFailureReturnsTheLayersOwnCount)
{
    for (const int errorNumber : {5, 6, 22}) {
        again();
        opened().writesShort(-1, errorNumber).capturesFfdc().closes();
        writeStart();
        EXPECT_NE(nullptr, errl);
        EXPECT_EQ(0xFFFFFFFFu, length) << errorNumber;
    }
}

TEST_F(KestSeepromHardwareWrite, AFailureThroughAHubReturnsTheLayersOwnCount)
{
    platform.healthy().reads(hex("00")).writesShort(-1, 5).capturesFfdc();
    transfer("sim:planar,L,922,80,3,2C0128,A2", 0, 4);
    EXPECT_NE(nullptr, errl);
    EXPECT_EQ(0xFFFFFFFFu, length);
}

// --- one reset and retry ---

TEST_F(KestSeepromHardwareWrite, ATimeOutIsRescuedByAReset)
{
    opened().writesShort(3, 62).capturesFfdc().resets().writes().closes();
    writeStart();
    EXPECT_EQ(timedOut(3) + writeLine +
                  "entry1.setSev(0x10)\n"
                  "entry1.commit(0x1300, 0x4000)\n"
                  "delete entry1\n"
                  "usleep(15000)\n"
                  "mern_iic_close(h1)\n",
              platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(4u, length);
}

TEST_F(KestSeepromHardwareWrite, AFailedRetryIsReportedInTheFirstEntry)
{
    opened().writesShort(3, 62).capturesFfdc().resets().writesShort(1, 6).capturesFfdc().closes();
    writeStart();
    EXPECT_EQ(timedOut(3) + writeLine + failureLines(2, failure({18, 0x130D, 0x1314, true, 1, 1, 1}, 6)) +
                  "entry1.addSRC(0x1300, SRC 0 of entry2)\n"
                  "delete entry2\n" +
                  softwareError(1, 0x40001311, 31, 1641) + "mern_iic_close(h1)\n" + finishLines(0x00001314, 1435),
              platform.calls());
    EXPECT_NE(nullptr, errl);
    EXPECT_EQ(1u, length);
    EXPECT_TRUE(platform.sleeps().empty());
}

TEST_F(KestSeepromHardwareWrite, AFailedResetIsReportedInTheFirstEntry)
{
    opened().writesShort(3, 62).capturesFfdc().failsReset(62).capturesFfdc().closes();
    writeStart();
    EXPECT_EQ(timedOut(3) + newEntry(2, {31, 0x1328, 62, 0, 0, 0, 0x81, "kestseeprom"}) + returnCode(2, 0x80001328) +
                  callout(2) + capture() +
                  "entry1.addSRC(0x1300, SRC 0 of entry2)\n"
                  "delete entry2\n" +
                  softwareError(1, 0x80001328, 31, 1641) + "mern_iic_close(h1)\n" + finishLines(0x00001314, 1435),
              platform.calls());
    // the length asked for, which was restored for the retry
    EXPECT_EQ(4u, length);
}

// --- refusals and close ---

TEST_F(KestSeepromHardwareWrite, RefusesTextsNotUnderstood) { refusesTextsNotUnderstood(); }
TEST_F(KestSeepromHardwareWrite, FreesTheTextWithoutMemoryForTheEntry) { freesTheTextWithoutMemoryForTheEntry(); }
TEST_F(KestSeepromHardwareWrite, FreesTheChainWithoutMemoryForTheEntry) { freesTheChainWithoutMemoryForTheEntry(); }
TEST_F(KestSeepromHardwareWrite, RefusesInvalidChains) { refusesInvalidChains(); }
TEST_F(KestSeepromHardwareWrite, RefusesOtherDevices) { refusesOtherDevices(); }
TEST_F(KestSeepromHardwareWrite, CloseFailuresAreNotReturned) { closeFailuresAreNotReturned(); }
TEST_F(KestSeepromHardwareWrite, DeadlockOfTheCloseIsCommittedByItself) { deadlockOfTheCloseIsCommittedByItself(); }
TEST_F(KestSeepromHardwareWrite, CloseFailuresTakeTheSite) { closeFailuresTakeTheSite(); }
TEST_F(KestSeepromHardwareWrite, UsesALocationThatFillsItsField) { usesALocationThatFillsItsField(); }
TEST_F(KestSeepromHardwareWrite, TracesAFailedTransfer) { tracesAFailedTransfer(); }
TEST_F(KestSeepromHardwareWrite, SeeksFarPositions) { seeksFarPositions(); }
TEST_F(KestSeepromHardwareWrite, EveryCallMayFail) { everyCallMayFail("sim:planar,L,2C0256,A0", 256); }
TEST_F(KestSeepromHardwareWrite, EveryCallThroughAHubMayFail)
{
    everyCallMayFail("sim:planar,L,922,80,3,2C0128,A2", 0);
}

// --- through a hub ---

TEST_F(KestSeepromHardwareWrite, LeavesAHubsTransferToTheHubSupport)
{
    platform.healthy();
    platform.readHandler = [](std::uint8_t* bytes, unsigned size) {
        std::fill_n(bytes, size, std::uint8_t{0});
        return static_cast<int>(size);
    };
    transfer("sim:planar,L,922,80,3,2C0128,A2", 16, 4);
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(4u, length);
    const std::string calls = platform.layerCalls();
    EXPECT_EQ(calls.find("mern_iic_open"), calls.rfind("mern_iic_open"));
    EXPECT_EQ(calls.find("mern_iic_close"), calls.rfind("mern_iic_close"));
    EXPECT_EQ((std::vector<Bytes>{counting(4)}), platform.written());
    // made by the hub support, and no second one
    EXPECT_EQ(std::vector<unsigned>{15000}, platform.sleeps());
}

TEST_F(KestSeepromHardwareWrite, MarksAFailureOfTheHubSupport)
{
    platform.failsOpen(2);
    transfer("sim:planar,L,922,80,3,2C0128,A2", 0, 8);
    EXPECT_EQ((SoftwareError{.returnCode = 0x40001311, .word1 = 17, .word2 = 1327}),
              platform.entry(1).softwareErrors.back());
    EXPECT_EQ(8u, length);
    EXPECT_TRUE(platform.sleeps().empty());
}

} // namespace
