#include <cerrno>

#include "tests/kest/seepromengine.h"

using namespace seepromengine;

namespace
{

struct KestSeepromHardwareRead : SeepromEngine {
    KestSeepromHardwareRead() : SeepromEngine(true) {}

    /// A read of 8 bytes from the start, up to the read itself.
    Platform& opened() { return platform.opens().configures(3); }
    void readStart() { transfer("sim:planar,L,2C0256,A0", 0, 8); }

    static constexpr char openedLines[] = "\ntavo_malloc(8)\n"
                                          "MernInitialize(0x80000000)\n"
                                          "mern_iic_open(node -1, \"sim:planar\", 0x1002)\n"
                                          "mern_iic_config(h1, 2, 19, block: speed 400, address 0xA0, offset bytes 2, "
                                          "timeout 2064, write cycle 15, page 64, "
                                          "flags 0xFFFB0001, busy wait 1000)\n"
                                          "mern_iic_config(h1, 2, 2, 0x190)\n"
                                          "mern_iic_config(h1, 2, 16, 0x2)\n";
    /// The lines of a read that timed out, up to what completes the entry.
    static std::string timedOut()
    {
        return openedLines + std::string("mern_iic_read(h1, 8)\n") +
               failureLines(1, failure({13, 0x130D, 0x1312, true, 8, 0, 8}, 62)) +
               "mern_iic_config(h1, 1, 15, 4 bytes)\n"
               "mern_iic_reset(h1, 1)\n";
    }
};

TEST_F(KestSeepromHardwareRead, GoesThroughItsSteps)
{
    scriptSteps();
    platform.closes();
    transferSteps();
    EXPECT_EQ("\ntavo_malloc(32)\n" + stepLines() + "mern_iic_close(h1)\n", platform.calls());
    EXPECT_EQ("\n", platform.traces());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(counting(32), bytesRead());
}

TEST_F(KestSeepromHardwareRead, FromTheStartDoesNotSeek)
{
    opened().reads(counting(8, 7)).closes();
    readStart();
    EXPECT_EQ(openedLines + std::string("mern_iic_read(h1, 8)\nmern_iic_close(h1)\n"), platform.calls());
    EXPECT_EQ(counting(8, 7), bytesRead());
}

TEST_F(KestSeepromHardwareRead, TakesSpeedAndFormulaFromTheAttributes)
{
    const kest_attributeValue attributes[6] = {100, 1, 5, 1, 3, 3};
    opened().reads(counting(64)).closes();
    transfer("/dev/i2c-7,3,2C0512,A6", 0, 64, attributes);
    // 2 blocks of 64: 128 x (100 / 100) + 256 + 2000, times 3
    EXPECT_EQ(R"(
MernInitialize(0x80000000)
mern_iic_open(node 3, "/dev/i2c-7", 0x1002)
mern_iic_config(h1, 2, 19, block: speed 400, address 0xA6, offset bytes 2, timeout 7152, write cycle 5, page 128, flags 0xFFFB0002, busy wait 1000)
mern_iic_config(h1, 2, 2, 0x64)
mern_iic_config(h1, 2, 16, 0x2)
mern_iic_read(h1, 64)
mern_iic_close(h1)
)",
              platform.layerCalls());
}

TEST_F(KestSeepromHardwareRead, EveryStepReportsEveryErrno) { everyStepReportsEveryErrno(); }

TEST_F(KestSeepromHardwareRead, LengthZeroIsTheWholeDevice)
{
    const struct {
        const char* type;
        unsigned bytes;
    } rows[] = {{"1C0002", 256},   {"2C0032", 4096},  {"2C0064", 8192}, {"2C0128", 16384},
                {"2C0256", 32768}, {"2C0512", 65536}, {"172", 22016}};
    for (const auto& row : rows) {
        again();
        opened().reads(counting(row.bytes)).closes();
        transfer(line("sim:planar,L,%s,A0", row.type), 0, 0);
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(line("\ntavo_malloc(%u)\n", row.bytes), platform.log(kindMemory)) << row.type;
        EXPECT_EQ(counting(row.bytes), bytesRead());
    }
}

TEST_F(KestSeepromHardwareRead, LengthZeroStillCountsFromTheOffset)
{
    opened().seeks().reads(counting(4096)).closes();
    transfer("sim:planar,L,2C0032,A0", 4000, 0);
    EXPECT_EQ(4096u, length);
}

TEST_F(KestSeepromHardwareRead, PassesAShortReadOn)
{
    opened().readsShort(counting(3), 5).capturesFfdc().configuresReading(word(3)).closes();
    readStart();
    EXPECT_EQ(3u, length);
    EXPECT_EQ((Src{.module = 13, .reason = 0x1312, .word1 = 5, .word2 = 3, .word3 = 8, .subsystem = 0x55}),
              platform.entry(1).srcs.at(0));
    EXPECT_EQ((std::vector<SoftwareError>{{.returnCode = 0x00001312, .word1 = 15, .word2 = 751}}),
              platform.entry(1).softwareErrors);
    EXPECT_NE(std::string::npos, platform.traces().find("0x11, 0x8, 0x3, 0x0)"));
}

TEST_F(KestSeepromHardwareRead, ADeadlockNeverReturnsMoreThanTheBufferHolds)
{
    platform.healthy();
    platform.readHandler = [](std::uint8_t* /*bytes*/, unsigned /*size*/) {
        errno = 35;
        return -1;
    };
    readStart();
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(1, platform.commits());
    EXPECT_EQ(8u, length);
    EXPECT_EQ(Bytes(8), bytesRead());
}

// --- the DMA option ---

TEST_F(KestSeepromHardwareRead, EndsAsASuccessWhenTheDmaOptionIsRefused)
{
    for (const int result : {-1, 1}) {
        for (const int errorNumber : {5, 19, 35, 62}) {
            again();
            platform.opens().configures(2).failsConfig(errorNumber, result).closes();
            StandardError caught;
            readStart();
            EXPECT_EQ("DMA workaround error\n", caught.text());
            EXPECT_EQ(openedLines + std::string("mern_iic_close(h1)\n"), platform.calls());
            EXPECT_EQ("\n", platform.traces());
            EXPECT_EQ(nullptr, errl);
            // the length is that asked for, and no byte was filled in
            EXPECT_EQ(Bytes(8), bytesRead());
        }
    }
}

// --- one reset and retry ---

TEST_F(KestSeepromHardwareRead, ATimeOutIsRescuedByAReset)
{
    opened()
        .readsShort(counting(5), 62)
        .capturesFfdc()
        .configuresReading(word(3))
        .resets()
        .reads(counting(8, 90))
        .closes();
    readStart();
    EXPECT_EQ(openedLines + std::string("mern_iic_read(h1, 8)\n") +
                  failureLines(1, failure({13, 0x130D, 0x1312, true, 8, 5, 8}, 62)) +
                  "mern_iic_config(h1, 1, 15, 4 bytes)\n"
                  "mern_iic_reset(h1, 1)\n"
                  // the length is that asked for, not the five bytes that came
                  "mern_iic_read(h1, 8)\n"
                  "entry1.setSev(0x10)\n"
                  "entry1.commit(0x1300, 0x4000)\n"
                  "delete entry1\n"
                  "mern_iic_close(h1)\n",
              platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(counting(8, 90), bytesRead());
}

TEST_F(KestSeepromHardwareRead, TheRetryNeitherSeeksNorConfigures)
{
    const std::vector<Step> all = steps();
    for (std::size_t at = 0; at + 1 < all.size(); ++at) {
        all[at].succeeds(platform);
    }
    platform.failsRead(62).capturesFfdc().configuresReading(word(3)).resets().reads(counting(32)).closes();
    transferSteps();
    EXPECT_EQ("\n" + stepLines() +
                  "mern_iic_ffdc_extract(h1, 0)\nmern_iic_ffdc_unlock(h1, 0)\nmern_iic_config(h1, 1, 15, 4 bytes)\n"
                  "mern_iic_reset(h1, 1)\nmern_iic_read(h1, 32)\nmern_iic_close(h1)\n",
              platform.layerCalls());
    EXPECT_EQ(nullptr, errl);
}

TEST_F(KestSeepromHardwareRead, AFailedRetryIsReportedInTheFirstEntry)
{
    opened().failsRead(62).capturesFfdc().configuresReading(word(3)).resets();
    platform.readsShort(counting(2), 61).capturesFfdc().configuresReading(word(3)).closes();
    readStart();
    EXPECT_EQ(timedOut() + "mern_iic_read(h1, 8)\n" +
                  failureLines(2, failure({13, 0x130D, 0x1312, true, 8, 2, 8}, 61)) +
                  "mern_iic_config(h1, 1, 15, 4 bytes)\n"
                  "entry1.addSRC(0x1300, SRC 0 of entry2)\n"
                  "delete entry2\n" +
                  softwareError(1, 0x00001312, 31, 1641) + "mern_iic_close(h1)\n" + finishLines(0x00001312, 744),
              platform.calls());
    EXPECT_NE(nullptr, errl);
    EXPECT_EQ(2u, length);
    EXPECT_EQ(0, platform.commits());
}

TEST_F(KestSeepromHardwareRead, ATimeOutOfTheRetryIsNotRetried)
{
    opened().failsRead(62).capturesFfdc().configuresReading(word(3)).resets();
    platform.failsRead(62).capturesFfdc().configuresReading(word(3)).closes();
    readStart();
    EXPECT_NE(nullptr, errl);
    EXPECT_EQ((std::vector<SoftwareError>{{.returnCode = 0x00001312, .word1 = 31, .word2 = 1641},
                                          {.returnCode = 0x00001312, .word1 = 15, .word2 = 744}}),
              platform.entry(1).softwareErrors);
}

TEST_F(KestSeepromHardwareRead, AFailedResetIsReportedInTheFirstEntry)
{
    opened().failsRead(62).capturesFfdc().configuresReading(word(3)).failsReset(19).capturesFfdc().closes();
    readStart();
    EXPECT_EQ(timedOut() + newEntry(2, {31, 0x1328, 19, 0, 0, 0, 0x81, "kestseeprom"}) + returnCode(2, 0x80001328) +
                  callout(2) + capture() +
                  "entry1.addSRC(0x1300, SRC 0 of entry2)\n"
                  "delete entry2\n" +
                  softwareError(1, 0x80001328, 31, 1641) + "mern_iic_close(h1)\n" + finishLines(0x00001312, 744),
              platform.calls());
    EXPECT_EQ(8u, length);
}

TEST_F(KestSeepromHardwareRead, AResetThatFailsWithoutMemoryForItsEntryIsNoSuccess)
{
    opened().failsRead(62).capturesFfdc().configuresReading(word(3)).failsReset(5).capturesFfdc().closes();
    // the entry of the failed read, the first one, still has memory
    platform.failEntryAllocation(2);
    readStart();
    EXPECT_NE(nullptr, errl);
    EXPECT_EQ(0x00001312u, platform.entry(1).returnCode);
    EXPECT_EQ(std::string::npos, platform.layerCalls().find("mern_iic_reset(h1, 1)\nmern_iic_read"));
}

TEST_F(KestSeepromHardwareRead, AFailureReturnsTheLayersOwnCount)
{
    for (const int errorNumber : {5, 6, 22}) {
        again();
        platform.healthy();
        platform.readHandler = [errorNumber](std::uint8_t* /*bytes*/, unsigned /*size*/) {
            errno = errorNumber;
            return -1;
        };
        readStart();
        EXPECT_NE(nullptr, errl);
        EXPECT_EQ(0xFFFFFFFFu, length) << errorNumber;
    }
}

TEST_F(KestSeepromHardwareRead, AFailureThroughAHubReturnsTheLayersOwnCount)
{
    platform.healthy();
    platform.readHandler = [](std::uint8_t* bytes, unsigned size) {
        bytes[0] = 0;
        errno = 5;
        return size == 1 ? 1 : -1;
    };
    transfer("sim:planar,L,922,80,3,2C0128,A2", 0, 8);
    EXPECT_NE(nullptr, errl);
    EXPECT_EQ(0xFFFFFFFFu, length);
}

TEST_F(KestSeepromHardwareRead, TheSrcDecidesAboutTheRetryNotALaterErrno)
{
    // the status read timed out, the transfer itself did not
    opened().failsRead(5).capturesFfdc().failsConfig(62).capturesFfdc().closes();
    readStart();
    EXPECT_EQ(std::string::npos, platform.layerCalls().find("mern_iic_reset"));
    EXPECT_EQ((std::vector<SoftwareError>{{.returnCode = 0x00001312, .word1 = 15, .word2 = 751}}),
              platform.entry(1).softwareErrors);
}

// --- refusals, close, memory ---

TEST_F(KestSeepromHardwareRead, RefusesTextsNotUnderstood) { refusesTextsNotUnderstood(); }
TEST_F(KestSeepromHardwareRead, FreesTheTextWithoutMemoryForTheEntry) { freesTheTextWithoutMemoryForTheEntry(); }
TEST_F(KestSeepromHardwareRead, FreesTheChainWithoutMemoryForTheEntry) { freesTheChainWithoutMemoryForTheEntry(); }
TEST_F(KestSeepromHardwareRead, RefusesInvalidChains) { refusesInvalidChains(); }
TEST_F(KestSeepromHardwareRead, RefusesOtherDevices) { refusesOtherDevices(); }
TEST_F(KestSeepromHardwareRead, CloseFailuresAreNotReturned) { closeFailuresAreNotReturned(); }
TEST_F(KestSeepromHardwareRead, DeadlockOfTheCloseIsCommittedByItself) { deadlockOfTheCloseIsCommittedByItself(); }
TEST_F(KestSeepromHardwareRead, CloseFailuresTakeTheSite) { closeFailuresTakeTheSite(); }
TEST_F(KestSeepromHardwareRead, UsesALocationThatFillsItsField) { usesALocationThatFillsItsField(); }
TEST_F(KestSeepromHardwareRead, TracesAFailedTransfer) { tracesAFailedTransfer(); }
TEST_F(KestSeepromHardwareRead, SeeksFarPositions) { seeksFarPositions(); }
TEST_F(KestSeepromHardwareRead, EveryCallMayFail) { everyCallMayFail("sim:planar,L,2C0256,A0", 256); }
TEST_F(KestSeepromHardwareRead, EveryCallThroughAHubMayFail) { everyCallMayFail("sim:planar,L,922,80,3,2C0128,A2", 0); }

TEST_F(KestSeepromHardwareRead, WithoutMemoryTouchesNothing)
{
    platform.failMalloc();
    readStart();
    EXPECT_EQ("\ntavo_malloc(8)\n" + newEntry(1, {15, 0x132B, 8, 0, 0, 0, 0x81, "kestseeprom"}) +
                  returnCode(1, 0x8000132B) + callout(1),
              platform.calls());
    EXPECT_EQ(0u, length);
    EXPECT_EQ(nullptr, data);
    EXPECT_NE(std::string::npos, platform.traces().find("\" %s,%x\", \"kest_seepromHardwareRead\", 0x8)"));
    again();
    // more than is available
    transfer("sim:planar,L,2C0256,A0", 0, 0xFFFFFFFF);
    EXPECT_EQ((Src{.module = 15, .reason = 0x132B, .word1 = 0xFFFFFFFF, .subsystem = 0x81}),
              platform.entry(1).srcs.at(0));
}

TEST_F(KestSeepromHardwareRead, WithoutMemoryForTheChainRefusesTheText)
{
    // working copy, path, node, link
    for (int block = 1; block <= 4; ++block) {
        again();
        platform.failAllocation(block);
        readStart();
        EXPECT_EQ(0x80001315u, platform.entry(1).returnCode) << block;
        EXPECT_EQ("\n", platform.layerCalls());
        EXPECT_EQ(0u, length);
    }
}

TEST_F(KestSeepromHardwareRead, WithoutMemoryForTheFlatChainTracesThat)
{
    opened().failsRead(6).capturesFfdc().closes();
    platform.failAllocation(5);
    readStart();
    EXPECT_EQ((std::vector<SoftwareError>{{.returnCode = 0x40001311, .word1 = 15, .word2 = 751}}),
              platform.entry(1).softwareErrors);
    EXPECT_TRUE(platform.entry(1).details(1).empty());
    again();
    platform.failAllocation(5);
    transfer("p,L,922,80,3", 0, 8);
    EXPECT_EQ("\n" + newEntry(1, {15, 0x1302, 0xAC0007, 0, 0, 0, 0x81, "kestseeprom"}) + returnCode(1, 0x80001302) +
                  callout(1),
              platform.calls());
    // the chain is invalid; there is no flat one
    EXPECT_EQ(2u, platform.lines(kindTrace).size());
}

// --- through a hub ---

TEST_F(KestSeepromHardwareRead, LeavesAHubsTransferToTheHubSupport)
{
    platform.healthy();
    platform.readHandler = [](std::uint8_t* bytes, unsigned size) {
        std::fill_n(bytes, size, std::uint8_t{0});
        if (size > 1) {
            bytes[1] = 0x77;
        }
        return static_cast<int>(size);
    };
    transfer("sim:planar,L,922,80,3,2C0128,A2", 16, 8);
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(hex("77 00 00 00 00 00 00 00"), bytesRead());
    const std::string calls = platform.layerCalls();
    EXPECT_EQ(calls.find("mern_iic_open"), calls.rfind("mern_iic_open"));
    EXPECT_EQ(calls.find("mern_iic_close"), calls.rfind("mern_iic_close"));
    EXPECT_NE(std::string::npos, calls.find("mern_iic_read(h1, 9)"));
}

TEST_F(KestSeepromHardwareRead, MarksAFailureOfTheHubSupport)
{
    platform.failsOpen(2);
    transfer("sim:planar,L,922,80,3,2C0128,A2", 0, 8);
    EXPECT_EQ((SoftwareError{.returnCode = 0x40001311, .word1 = 15, .word2 = 609}),
              platform.entry(1).softwareErrors.back());
    EXPECT_EQ(8u, length);
    EXPECT_EQ("\ntavo_malloc(8)\n", platform.log(kindMemory));
    const std::vector<std::string> lines = platform.lines(kindEntry);
    ASSERT_LE(2u, lines.size());
    EXPECT_EQ("entry1.addUsrDtls(list 0x80/0x922/3 0xA2/0x2C0128/0, 0x1300, 1, 1)", lines[lines.size() - 2]);
    EXPECT_EQ(0, platform.openHandles());
}

TEST_F(KestSeepromHardwareRead, NeverReturnsMoreThanTheBufferHolds)
{
    // a hub's read that succeeds only when it is repeated counts the status byte, too
    platform.healthy();
    // the hub's status before the transfer
    platform.reads(hex("00"));
    // the transfer
    platform.failsRead(61).capturesFfdc();
    // its status, a stuck sub-bus, and that of the sub-bus reset
    platform.reads(hex("04")).reads(hex("00"));
    platform.reads(counting(9)).reads(hex("00"));
    transfer("sim:planar,L,922,80,3,2C0128,A2", 0, 8);
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(8u, length);
}

} // namespace
