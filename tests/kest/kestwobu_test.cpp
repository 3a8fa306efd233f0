#include "kestwobu.h"

#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kestseeprom.h"
#include "tests/kest/expected.h"
#include "tests/platform/scripted.h"

using namespace scripted;
using namespace expected;
using namespace kest;

namespace
{

const kest_attributeValue defaults[6] = {400, 1, 15, 1, 2, 1};

/// A wrapper that works on an open handle, as its callers see it. `layerLine` is the layer call that it makes.
struct Wrapper {
    const char* name;
    unsigned module;
    unsigned deadlockReason;
    bool knowsAbsent; ///< ENXIO has its own reason
    unsigned absentHash;
    unsigned otherReason;
    unsigned otherHash;
    std::uint32_t special2; ///< user data word 2 of EDEADLK and ENXIO
    std::uint32_t other2, other3;
    std::string layerLine;

    std::function<void(Platform&, int)> fails;
    std::function<void(Platform&)> succeeds;
    std::function<void(mern_t&, ErrlEntry*&)> call;
};

std::uint8_t buffer[64];

std::vector<Wrapper> wrappers()
{
    std::vector<Wrapper> all;
    all.push_back({"kest_wobuClose", 19, 0x1316, false, 0, 0x1317, 0x266E6775, 0, 0, 0, "mern_iic_close(h1)\n",
                   [](Platform& platform, int error) { platform.failsClose(error); },
                   [](Platform& platform) { platform.closes(); },
                   [](mern_t& handle, ErrlEntry*& entry) { kest_wobuClose(handle, entry); }});
    all.push_back({"kest_wobuSeek", 14, 0x130D, false, 0, 0x1313, 0x6CBCBF08, 0x1234, 0x1234, 0,
                   "mern_iic_seek(h1, 4660, 0)\n", [](Platform& platform, int error) { platform.failsSeek(error); },
                   [](Platform& platform) { platform.seeks(); },
                   [](mern_t& handle, ErrlEntry*& entry) { kest_wobuSeek(handle, entry, 0x1234, 0); }});
    all.push_back({"kest_wobuConfig", 12, 0x130D, false, 0, 0x130E, 0x0647B45B, 3, 2, 3,
                   "mern_iic_config(h1, 2, 3, 0xA0)\n",
                   [](Platform& platform, int error) { platform.failsConfig(error); },
                   [](Platform& platform) { platform.configures(); },
                   [](mern_t& handle, ErrlEntry*& entry) {
                       std::uint32_t address = 0xA0;
                       kest_wobuConfig(handle, entry, 2, WOBU_IIC_TARGET, &address, 4);
                   }});
    all.push_back({"kest_wobuRead", 13, 0x130D, true, 0x46CE7181, 0x1312, 0x8F0A53F7, 32, 5, 32,
                   "mern_iic_read(h1, 32)\n",
                   [](Platform& platform, int error) { platform.readsShort(counting(5), error); },
                   [](Platform& platform) { platform.reads(counting(32)); },
                   [](mern_t& handle, ErrlEntry*& entry) {
                       unsigned length = 32;
                       kest_wobuRead(handle, entry, &length, buffer, 0);
                   }});
    all.push_back({"kest_wobuWrite", 18, 0x130D, true, 0xC7AD4A12, 0x1314, 0x52F84B38, 3, 3, 3,
                   "mern_iic_write(h1, 4 bytes: 00 01 02 03)\n",
                   [](Platform& platform, int error) { platform.writesShort(3, error); },
                   [](Platform& platform) { platform.writes(); },
                   [](mern_t& handle, ErrlEntry*& entry) {
                       const Bytes data = counting(4);
                       unsigned length = 4;
                       kest_wobuWrite(handle, entry, &length, data.data());
                   }});
    return all;
}

/// The result of one errno in one wrapper.
Failure failureOf(const Wrapper& wrapper, int error)
{
    return failure({wrapper.module, wrapper.deadlockReason, wrapper.otherReason, wrapper.knowsAbsent, wrapper.special2,
                    wrapper.other2, wrapper.other3},
                   error);
}

std::string traceOf(const Wrapper& wrapper, int error)
{
    std::string trace = line("trace(0x%08X, \" %%s,%%d\", \"%s\", %d)\n", wrapper.otherHash, wrapper.name, error);
    if (error == 35) {
        trace = line("trace(0x77E7226A, \" %%s\", \"%s\")\n", wrapper.name);
    } else if (error == 6 && wrapper.knowsAbsent) {
        trace = line("trace(0x%08X, \" %%s\", \"%s\")\n", wrapper.absentHash, wrapper.name);
    }
    return trace;
}

constexpr char noFfdcTrace[] = "trace(0x3242D04A, \" %s\", \"kest_wobuFFDCExtract\")\n";

using KestWobu = PlatformTest;

TEST_F(KestWobu, EveryWrapperReportsEveryErrno)
{
    for (const Wrapper& wrapper : wrappers()) {
        for (int error = 0; error <= 133; ++error) {
            SCOPED_TRACE(line("%s errno %d", wrapper.name, error));
            platform.reset();
            const Failure expect = failureOf(wrapper, error);
            mern_t handle = platform.openHandle();
            wrapper.fails(platform, error);
            platform.capturesFfdc();
            ErrlEntry* entry = nullptr;
            wrapper.call(handle, entry);

            EXPECT_EQ("\n" + wrapper.layerLine + failureLines(1, expect), platform.calls());
            EXPECT_EQ("\n" + traceOf(wrapper, error) + noFfdcTrace, platform.traces());
            EXPECT_EQ(expect.committed, entry == nullptr);
            delete entry;
            platform.verify();
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST_F(KestWobu, EveryWrapperIsSilentOnSuccess)
{
    for (const Wrapper& wrapper : wrappers()) {
        platform.reset();
        mern_t handle = platform.openHandle();
        wrapper.succeeds(platform);
        ErrlEntry* entry = nullptr;
        wrapper.call(handle, entry);
        EXPECT_EQ(nullptr, entry);
        EXPECT_EQ("\n" + wrapper.layerLine, platform.calls());
        EXPECT_EQ("\n", platform.traces());
        // entry and exit, under its own name
        ASSERT_EQ(2u, platform.lines(kindScope).size()) << wrapper.name;
        for (const std::string& scope : platform.lines(kindScope)) {
            EXPECT_NE(std::string::npos, scope.find("\" %s\", \"" + std::string(wrapper.name) + "\"")) << scope;
        }
        platform.verify();
    }
}

TEST_F(KestWobu, AResultAboveZeroIsASuccessWhateverErrnoSays)
{
    mern_t handle = platform.openHandle();
    ErrlEntry* entry = nullptr;
    std::uint32_t address = 0xA0;
    platform.failsConfig(5, 1).failsSeek(5, 1).failsClose(5, 1);
    kest_wobuConfig(handle, entry, 2, WOBU_IIC_TARGET, &address, 4);
    kest_wobuSeek(handle, entry, 7, 0);
    kest_wobuClose(handle, entry);
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ("\nmern_iic_config(h1, 2, 3, 0xA0)\nmern_iic_seek(h1, 7, 0)\nmern_iic_close(h1)\n", platform.events());
}

TEST_F(KestWobu, EveryWrapperExtendsAnEntryThatIsThere)
{
    for (const Wrapper& wrapper : wrappers()) {
        for (const int error : {5, 35}) {
            SCOPED_TRACE(line("%s errno %d", wrapper.name, error));
            platform.reset();
            const Failure expect = failureOf(wrapper, error);
            mern_t handle = platform.openHandle();
            ErrlEntry* entry = platform.makeEntry();
            wrapper.fails(platform, error);
            platform.capturesFfdc(hex("7b 7d"));
            wrapper.call(handle, entry);
            const std::string commit = expect.committed ? "entry1.commit(0x1300, 0x2000)\ndelete entry1\n" : "";
            EXPECT_EQ("\n" + wrapper.layerLine + addedSrc(1, expect.src) + returnCode(1, expect.returnCode) +
                          callout(1) + capture() + "tavo_util_free(ffdc1)\nentry1.addUsrDtls(\"{}\", 0x1300, 1, 6)\n" +
                          commit,
                      platform.calls());
            EXPECT_EQ(expect.committed, entry == nullptr);
            delete entry;
            platform.verify();
        }
    }
}

TEST_F(KestWobu, DeadlockIsCommittedWithItsFfdc)
{
    mern_t handle = platform.openHandle();
    platform.failsClose(35).capturesFfdc(hex("7b 7d"));
    ErrlEntry* entry = nullptr;
    kest_wobuClose(handle, entry);
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(R"(
SRC module 19 reason 0x1316 words 0x23 0x0 0x0 0x0 subsystem 0x81
rc 0x8000130D
callout 1 4
details 2 "kestwobu"
details 6 "{}"
commit 0x1300 0x2000
)",
              platform.entry(1).text());
}

TEST_F(KestWobu, AFfdcStepThatFailsSpeaksInTheSameEntry)
{
    mern_t handle = platform.openHandle();
    platform.failsSeek(5).failsFfdcExtract(19).failsFfdcUnlock(5);
    ErrlEntry* entry = nullptr;
    kest_wobuSeek(handle, entry, 7, 0);
    const std::unique_ptr<ErrlEntry> owner{entry};
    ASSERT_EQ(3u, platform.entry(1).srcs.size());
    EXPECT_EQ((Src{.module = 9, .reason = 0x1310, .word1 = 19, .word2 = 0xFFFFFFFF, .subsystem = 0x81}),
              platform.entry(1).srcs[1]);
    EXPECT_EQ((Src{.module = 10, .reason = 0x130F, .word1 = 5, .word2 = 0xFFFFFFFF, .subsystem = 0x55}),
              platform.entry(1).srcs[2]);
    EXPECT_EQ(0x0000130Fu, platform.entry(1).returnCode);
}

// --- lengths of transfers ---

TEST_F(KestWobu, AReadThatMovedAllLeavesTheLength)
{
    mern_t handle = platform.openHandle();
    platform.reads(counting(16, 9));
    ErrlEntry* entry = nullptr;
    unsigned length = 16;
    kest_wobuRead(handle, entry, &length, buffer, 1);
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(16u, length);
    EXPECT_EQ(counting(16, 9), Bytes(buffer, buffer + 16));
}

TEST_F(KestWobu, ATransferOfNothingIsASuccess)
{
    mern_t handle = platform.openHandle();
    platform.reads({}).writes();
    ErrlEntry* entry = nullptr;
    unsigned length = 0;
    kest_wobuRead(handle, entry, &length, buffer, 1);
    kest_wobuWrite(handle, entry, &length, buffer);
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(0u, length);
}

TEST_F(KestWobu, ShortTransfersOfEveryLengthAreFailures)
{
    for (const bool write : {false, true}) {
        for (unsigned moved = 0; moved < 8; ++moved) {
            platform.reset();
            mern_t handle = platform.openHandle();
            if (write) {
                platform.writesShort(static_cast<int>(moved), 5);
            } else {
                platform.readsShort(counting(moved), 5);
            }
            platform.capturesFfdc();
            ErrlEntry* entry = nullptr;
            unsigned length = 8;
            if (write) {
                kest_wobuWrite(handle, entry, &length, buffer);
            } else {
                kest_wobuRead(handle, entry, &length, buffer, 0);
            }
            const std::unique_ptr<ErrlEntry> owner{entry};
            EXPECT_EQ(moved, length);
            // the read reports the length asked for, the write the count twice
            EXPECT_EQ(
                (write
                     ? Src{.module = 18,
                           .reason = 0x1314,
                           .word1 = 5,
                           .word2 = moved,
                           .word3 = moved,
                           .subsystem = 0x55}
                     : Src{.module = 13, .reason = 0x1312, .word1 = 5, .word2 = moved, .word3 = 8, .subsystem = 0x55}),
                platform.entry(1).srcs.at(0));
        }
    }
}

TEST_F(KestWobu, AbsentDeviceKeepsTheAskedLengthOfAReadAndTheCountOfAWrite)
{
    mern_t handle = platform.openHandle();
    platform.readsShort(counting(2), 6).capturesFfdc().writesShort(1, 6).capturesFfdc();
    ErrlEntry* readEntry = nullptr;
    ErrlEntry* writeEntry = nullptr;
    unsigned length = 8;
    kest_wobuRead(handle, readEntry, &length, buffer, 1);
    EXPECT_EQ(2u, length);
    length = 8;
    kest_wobuWrite(handle, writeEntry, &length, buffer);
    EXPECT_EQ(1u, length);
    EXPECT_EQ((Src{.module = 13, .reason = 0x1311, .word1 = 6, .word2 = 8, .subsystem = 0x55}),
              platform.entry(1).srcs.at(0));
    EXPECT_EQ((Src{.module = 18, .reason = 0x1311, .word1 = 6, .word2 = 1, .subsystem = 0x55}),
              platform.entry(2).srcs.at(0));
    delete readEntry;
    delete writeEntry;
}

TEST_F(KestWobu, ANegativeCountIsAFailureWhateverTheLengthAsked)
{
    mern_t handle = platform.openHandle();
    platform.writesShort(-1, 5).capturesFfdc();
    ErrlEntry* entry = nullptr;
    unsigned length = 4;
    kest_wobuWrite(handle, entry, &length, buffer);
    const std::unique_ptr<ErrlEntry> owner{entry};
    EXPECT_EQ(0xFFFFFFFFu, length);
    EXPECT_EQ(
        (Src{.module = 18, .reason = 0x1314, .word1 = 5, .word2 = 0xFFFFFFFF, .word3 = 0xFFFFFFFF, .subsystem = 0x55}),
        platform.entry(1).srcs.at(0));
}

TEST_F(KestWobu, SeekPassesLargePositionsOn)
{
    mern_t handle = platform.openHandle();
    platform.failsSeek(22).capturesFfdc();
    ErrlEntry* entry = nullptr;
    kest_wobuSeek(handle, entry, static_cast<long>(0x83A20010u), 0);
    const std::unique_ptr<ErrlEntry> owner{entry};
    EXPECT_EQ(0x83A20010u, platform.entry(1).srcs.at(0).word2);
}

// --- detect state after a failed read ---

struct KestWobuStatus : PlatformTest {
    mern_t handle = platform.openHandle();
    ErrlEntry* entry = nullptr;

    ~KestWobuStatus() override { delete entry; }

    void read(int checkStatus)
    {
        unsigned length = 8;
        kest_wobuRead(handle, entry, &length, buffer, checkStatus);
    }
    std::string failedRead(int error) const
    {
        const bool software = blamesSoftware(error);
        return "\nmern_iic_read(h1, 8)\n" +
               newEntry(1, {13, 0x1312, static_cast<std::uint32_t>(error), 0, 8, 0, software ? 0x81u : 0x55u}) +
               returnCode(1, software ? 0x80001312 : 0x00001312) + callout(1) + capture();
    }
};

TEST_F(KestWobuStatus, IsAskedForAfterEveryErrnoButThree)
{
    for (int error = 0; error <= 133; ++error) {
        SCOPED_TRACE(error);
        platform.reset();
        handle = platform.openHandle();
        platform.failsRead(error).capturesFfdc();
        const bool asked = error != 0 && error != 6 && error != 35;
        if (asked) {
            platform.configuresReading(word(3));
        }
        read(1);
        const std::string calls = platform.layerCalls();
        EXPECT_EQ(asked, calls.find("mern_iic_config(h1, 1, 15, 4 bytes)") != std::string::npos) << calls;
        EXPECT_EQ(error == 35, entry == nullptr);
        EXPECT_EQ(1u, platform.entry(1).srcs.size());
        delete entry;
        entry = nullptr;
        platform.verify();
    }
}

TEST_F(KestWobuStatus, IsNotAskedForUnlessWanted)
{
    platform.failsRead(5).capturesFfdc();
    read(0);
    EXPECT_EQ(failedRead(5), platform.calls());
}

TEST_F(KestWobuStatus, PresentAddsNothing)
{
    platform.failsRead(62).capturesFfdc().configuresReading(word(3));
    read(1);
    EXPECT_EQ(failedRead(62) + "mern_iic_config(h1, 1, 15, 4 bytes)\n", platform.calls());
}

TEST_F(KestWobuStatus, AbsentMarksTheReturnCode)
{
    platform.failsRead(5).capturesFfdc().configuresReading(word(0));
    read(1);
    EXPECT_EQ(failedRead(5) + "mern_iic_config(h1, 1, 15, 4 bytes)\nentry1.setRC(0x40001312)\n", platform.calls());
}

TEST_F(KestWobuStatus, AbsentKeepsTheClassBitOfASoftwareErrno)
{
    platform.failsRead(22).capturesFfdc().configuresReading(word(0));
    read(1);
    EXPECT_EQ(failedRead(22) + "mern_iic_config(h1, 1, 15, 4 bytes)\nentry1.setRC(0xC0001312)\n", platform.calls());
}

TEST_F(KestWobuStatus, AnyOtherStateAddsAnSrc)
{
    for (const std::uint32_t status : {1u, 2u, 4u, 0x80000000u}) {
        platform.reset();
        handle = platform.openHandle();
        platform.failsRead(5).capturesFfdc().configuresReading(word(status));
        read(1);
        EXPECT_EQ(failedRead(5) + "mern_iic_config(h1, 1, 15, 4 bytes)\n" +
                      addedSrc(1, {13, 0x1309, status, 0, 0, 0, 0x55}),
                  platform.calls());
        EXPECT_EQ("\ntrace(0x8F0A53F7, \" %s,%d\", \"kest_wobuRead\", 5)\n" + std::string(noFfdcTrace) +
                      line("trace(0x2F339125, \" %%s,%%x\", \"kest_wobuRead\", 0x%X)\n", status),
                  platform.traces());
        delete entry;
        entry = nullptr;
    }
}

TEST_F(KestWobuStatus, ThatCannotBeHadAddsItsOwnFailure)
{
    platform.failsRead(5).capturesFfdc().failsConfig(38).capturesFfdc();
    read(1);
    EXPECT_EQ(failedRead(5) + "mern_iic_config(h1, 1, 15, 4 bytes)\n" + newEntry(2, {12, 0x130E, 38, 1, 15, 0, 0x81}) +
                  returnCode(2, 0x8000130E) + callout(2) + capture() +
                  "entry1.addSRC(0x1300, SRC 0 of entry2)\ndelete entry2\n",
              platform.calls());
    EXPECT_EQ("\ntrace(0x8F0A53F7, \" %s,%d\", \"kest_wobuRead\", 5)\n" + std::string(noFfdcTrace) +
                  "trace(0x0647B45B, \" %s,%d\", \"kest_wobuConfig\", 38)\n" + noFfdcTrace +
                  "trace(0x3E40FC77, \" %s\", \"kest_wobuRead\")\n",
              platform.traces());
    EXPECT_EQ(0x00001312u, platform.entry(1).returnCode);
}

TEST_F(KestWobuStatus, ThatEndsInADeadlockAddsNothing)
{
    platform.failsRead(5).capturesFfdc().failsConfig(35).capturesFfdc();
    read(1);
    EXPECT_EQ(failedRead(5) + "mern_iic_config(h1, 1, 15, 4 bytes)\n" + newEntry(2, {12, 0x130D, 35, 15, 0, 0, 0x81}) +
                  returnCode(2, 0x8000130D) + callout(2) + capture() + "entry2.commit(0x1300, 0x2000)\ndelete entry2\n",
              platform.calls());
}

// --- open ---

struct KestWobuOpen : PlatformTest {
    mern_t handle{};
    ErrlEntry* entry = nullptr;

    ~KestWobuOpen() override { delete entry; }
};

TEST_F(KestWobuOpen, PassesNodePathAndFlags)
{
    platform.opens().closes();
    kest_wobuOpen(handle, entry, "/dev/i2c-1", "5");
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ("\nMernInitialize(0x80000000)\nmern_iic_open(node 5, \"/dev/i2c-1\", 0x1002)\n", platform.calls());
    EXPECT_EQ("\n", platform.traces());
    kest_wobuClose(handle, entry);
}

TEST_F(KestWobuOpen, ReportsEveryErrno)
{
    for (int error = 0; error <= 133; ++error) {
        SCOPED_TRACE(error);
        platform.reset();
        platform.failsOpen(error);
        kest_wobuOpen(handle, entry, "sim:planar", "L");

        const auto word1 = static_cast<std::uint32_t>(error);
        std::string trace = line("\ntrace(0x314864B7, \" %%s,%%d\", \"kest_wobuOpen\", %d)\n", error);
        std::string calls = "\nMernInitialize(0x80000000)\nmern_iic_open(node -1, \"sim:planar\", 0x1002)\n";
        if (error == 19) {
            trace += "trace(0x05B69EAF, \" %s\", \"kest_wobuOpen\")\n";
            calls += newEntry(1, {11, 0x130B, word1, 0, 0, 0, 0x81}) + returnCode(1, 0x8000130B) + callout(1);
        } else if (error == 2) {
            trace += "trace(0x3AD3D156, \" %s,%d\", \"kest_wobuOpen\", 2)\n";
            calls +=
                newEntry(1, {11, 0x1311, word1, 0, 0, 0, 0x55}) + returnCode(1, 0x40001311) + callout(1) + callout(1);
        } else {
            const bool software = blamesSoftware(error);
            calls += newEntry(1, {11, 0x130C, word1, 0, 0, 0, software ? 0x81u : 0x55u}) +
                     returnCode(1, software ? 0x8000130C : 0x0000130C) + callout(1);
        }
        EXPECT_EQ(calls + "entry1.addUsrDtls(\"sim:planar\", 0x1300, 1, 5)\n", platform.calls());
        EXPECT_EQ(trace, platform.traces());
        delete entry;
        entry = nullptr;
        platform.verify();
        ASSERT_FALSE(HasFailure());
    }
}

TEST_F(KestWobuOpen, RefusesANullPathBeforeItLooksAtTheNode)
{
    kest_wobuOpen(handle, entry, nullptr, "nonsense");
    EXPECT_EQ("\nMernInitialize(0x80000000)\n" + newEntry(1, {11, 0x132B}) + returnCode(1, 0x8000132B) + callout(1),
              platform.calls());
    EXPECT_EQ("\ntrace(0xBB9783DD, \" %s\", \"kest_wobuOpen\")\n", platform.traces());
}

TEST_F(KestWobuOpen, RefusesAnUnknownNodeWithoutOpening)
{
    kest_wobuOpen(handle, entry, "/dev/i2c-1", "8");
    EXPECT_EQ("\nMernInitialize(0x80000000)\n" + newEntry(1, {27, 0x1318}) + returnCode(1, 0x80001318) + callout(1),
              platform.calls());
    EXPECT_EQ("\ntrace(0xFB05D709, \" %s\", \"KEST_convert_str_to_MernNodeId\")\n"
              "trace(0x0528C5DF, \" %s,%s\", \"kest_wobuOpen\", \"8\")\n",
              platform.traces());
}

TEST_F(KestWobuOpen, RefusesANullNode)
{
    kest_wobuOpen(handle, entry, "/dev/i2c-1", nullptr);
    EXPECT_EQ("\nMernInitialize(0x80000000)\n" + newEntry(1, {27, 0x1318}) + returnCode(1, 0x80001318) + callout(1),
              platform.calls());
    EXPECT_EQ("\ntrace(0xFB05D709, \" %s\", \"KEST_convert_str_to_MernNodeId\")\n"
              "trace(0x0528C5DF, \" %s,%s\", \"kest_wobuOpen\", \"\")\n",
              platform.traces());
}

TEST_F(KestWobuOpen, KnowsAnInvalidHandleByItsFirstFiveWords)
{
    mern_t other = MERN_INVALID;
    EXPECT_TRUE(kest_isInvalidHandle(other));
    other.words[5] += 1;
    EXPECT_TRUE(kest_isInvalidHandle(other));
    for (int index = 0; index < 5; ++index) {
        other = MERN_INVALID;
        other.words[index] ^= 0x100;
        EXPECT_FALSE(kest_isInvalidHandle(other)) << index;
    }
}

TEST_F(KestWobuOpen, KnowsTenNodeNames)
{
    const struct {
        const char* name;
        NodeType number;
    } names[] = {{"L", -1}, {"l", -1}, {"0", 0}, {"1", 1}, {"2", 2}, {"3", 3}, {"4", 4}, {"5", 5}, {"6", 6}, {"7", 7}};
    for (const auto& row : names) {
        NodeType node = 99;
        KEST_convert_str_to_MernNodeId(row.name, &node, entry);
        EXPECT_EQ(row.number, node) << row.name;
        EXPECT_EQ(nullptr, entry);
    }
    EXPECT_EQ("\n", platform.events());
}

TEST_F(KestWobuOpen, KnowsNoOtherNodeName)
{
    for (const char* name :
         {"", "8", "9", "-1", "00", "01", "L ", "LL", " L", "7.", static_cast<const char*>(nullptr)}) {
        platform.reset();
        NodeType node = 99;
        KEST_convert_str_to_MernNodeId(name, &node, entry);
        EXPECT_EQ(99, node);
        EXPECT_EQ("\n" + newEntry(1, {27, 0x1318}) + returnCode(1, 0x80001318) + callout(1), platform.calls());
        delete entry;
        entry = nullptr;
    }
}

// --- configuration block ---

TEST(KestIicConfigBlock, HasItsFieldsWhereTheLayerLooksForThem)
{
    EXPECT_EQ(0u, offsetof(kest_iicConfigBlock, speedKhz));
    EXPECT_EQ(2u, offsetof(kest_iicConfigBlock, address));
    EXPECT_EQ(4u, offsetof(kest_iicConfigBlock, offsetLength));
    EXPECT_EQ(12u, offsetof(kest_iicConfigBlock, timeoutMs));
    EXPECT_EQ(20u, offsetof(kest_iicConfigBlock, writeCycleMs));
    EXPECT_EQ(24u, offsetof(kest_iicConfigBlock, pageSize));
    EXPECT_EQ(32u, offsetof(kest_iicConfigBlock, flags));
    EXPECT_EQ(40u, offsetof(kest_iicConfigBlock, busyWaitMs));
    EXPECT_EQ(44u, sizeof(kest_iicConfigBlock));
}

std::string textOf(const kest_iicConfigBlock& block)
{
    EXPECT_EQ(0u, block.reserved6 | block.reserved8 | block.reserved16 | block.reserved22 | block.reserved28 |
                      block.reserved36);
    return line("%u %X %u %u %u %u %X %u", block.speedKhz, block.address, block.offsetLength, block.timeoutMs,
                block.writeCycleMs, block.pageSize, block.flags, block.busyWaitMs);
}

std::string blockOf(const kest_deviceAddress& chain, unsigned length, bool read, const kest_attributeValue* attributes,
                    int hubOption)
{
    kest_iicConfigBlock block;
    std::memset(&block, 0xEE, sizeof block);
    kest_wobuBuildConfig(&chain, length, read, &block, attributes, hubOption);
    return textOf(block);
}

TEST_F(KestWobu, BlockFollowsTheTypeOfASingleDevice)
{
    // speed, address, offset bytes, time-out of a 256-byte read, write cycle, page, flags, busy wait
    const struct {
        kest_deviceType type;
        const char* block;
    } rows[] = {
        {KEST_DEV_SEEPROM_2K, "400 A2 1 2512 15 8 FFFB0001 1000"},
        {KEST_DEV_SEEPROM_32K, "400 A2 2 2512 15 32 FFFB0001 1000"},
        {KEST_DEV_SEEPROM_64K, "400 A2 2 2512 15 32 FFFB0001 1000"},
        {KEST_DEV_SEEPROM_128K, "400 A2 2 2512 15 64 FFFB0001 1000"},
        {KEST_DEV_SEEPROM_256K, "400 A2 2 2512 15 64 FFFB0001 1000"},
        {KEST_DEV_SEEPROM_512K, "400 A2 2 2512 15 128 FFFB0001 1000"},
        {KEST_DEV_172, "400 A2 0 2512 0 0 FFFB0001 1000"},
        {KEST_DEV_9551, "400 A2 0 20000 0 0 FFFF0001 1000"},
        {KEST_DEV_9552, "400 A2 0 20000 0 0 FFFF0001 1000"},
        {KEST_DEV_9554, "400 A2 0 20000 0 0 FFFF0001 1000"},
        {KEST_DEV_9555, "400 A2 0 20000 0 0 FFFF0001 1000"},
        {KEST_DEV_D10, "400 A2 0 20000 0 0 FFFF0001 1000"},
        {KEST_DEV_75, "400 A2 0 2512 0 0 FFFB0001 1000"},
        {KEST_DEV_92, "400 A2 0 2512 0 0 FFFB0001 1000"},
    };
    for (const auto& row : rows) {
        const kest_deviceAddress device{0xA2, row.type, 0, nullptr};
        EXPECT_EQ(row.block, blockOf(device, 256, true, defaults, 0)) << std::hex << row.type;
        // transfer mode 2 sets no flag, and its time-out is the block time alone
        const kest_attributeValue plain[6] = {400, 1, 15, 1, 1, 2};
        std::string unflagged{row.block};
        for (const auto& [from, to] : {std::pair{"2512", "128"}, std::pair{"0001 1000", "0000 1000"}}) {
            const std::size_t at = unflagged.find(from);
            unflagged = at == std::string::npos ? unflagged : unflagged.replace(at, std::strlen(from), to);
        }
        EXPECT_EQ(unflagged, blockOf(device, 256, true, plain, 0)) << std::hex << row.type;
    }
}

TEST_F(KestWobu, BlockOfAHubTakesThePageOfTheDeviceBehindIt)
{
    kest_deviceAddress device{0xA2, KEST_DEV_SEEPROM_512K, 0, nullptr};
    kest_deviceAddress hub{0x80, KEST_DEV_922HUB, 3, &device};
    EXPECT_EQ("400 80 0 1200 15 128 FFFD0001 1000", blockOf(hub, 256, true, defaults, 0));
    EXPECT_EQ("400 80 4 2400 15 128 FFFD0001 1000", blockOf(hub, 512, true, defaults, 2));
    device.type = KEST_DEV_SEEPROM_2K;
    EXPECT_EQ("400 80 3 1200 15 8 FFFD0001 1000", blockOf(hub, 255, false, defaults, 1));
    device.type = KEST_DEV_172;
    EXPECT_EQ("400 80 0 1200 15 0 FFFD0001 1000", blockOf(hub, 0, false, defaults, 3));
    EXPECT_EQ("400 80 0 1200 15 0 FFFD0001 1000", blockOf(hub, 0, false, defaults, -1));
}

TEST_F(KestWobu, BlockOfAHubTakesThePageOfTheLastDeviceOfAll)
{
    kest_deviceAddress device{0xA2, KEST_DEV_SEEPROM_512K, 0, nullptr};
    kest_deviceAddress second{0x82, KEST_DEV_922HUB, 1, &device};
    kest_deviceAddress hub{0x80, KEST_DEV_922HUB, 3, &second};
    EXPECT_EQ("400 80 4 1200 15 128 FFFD0001 1000", blockOf(hub, 256, true, defaults, 2));
}

TEST_F(KestWobu, BlockOfAnF0HubKnowsNothingOfTheDeviceBehindIt)
{
    kest_deviceAddress device{0xA2, KEST_DEV_SEEPROM_512K, 0, nullptr};
    kest_deviceAddress hub922{0x80, KEST_DEV_922HUB, 3, &device};
    kest_deviceAddress hub{0xE0, KEST_DEV_HUB_F0, 1, &device};
    EXPECT_EQ("400 E0 0 1200 0 0 FFFB0001 1000", blockOf(hub, 256, true, defaults, 0));
    hub.next = &hub922;
    EXPECT_EQ("400 E0 0 1200 0 0 FFFB0001 1000", blockOf(hub, 256, true, defaults, 2));
    const kest_attributeValue plain[6] = {400, 1, 15, 1, 1, 2};
    EXPECT_EQ("400 E0 0 1200 0 0 FFFB0000 1000", blockOf(hub, 256, true, plain, 0));
    EXPECT_EQ("400 80 0 1200 15 128 FFFD0000 1000", blockOf(hub922, 256, true, plain, 0));
}

TEST_F(KestWobu, BlockFlagsFollowTheTransferMode)
{
    const kest_deviceAddress device{0xA0, KEST_DEV_9552, 0, nullptr};
    const struct {
        kest_attributeValue mode;
        const char* block;
    } rows[] = {{1, "400 A0 0 20000 0 0 FFFF0001 1000"},
                {2, "400 A0 0 20000 0 0 FFFF0000 1000"},
                {3, "400 A0 0 20000 0 0 FFFF0002 1000"},
                {4, "400 A0 0 20000 0 0 FFFF0000 1000"},
                {0xFFFFFFFF, "400 A0 0 20000 0 0 FFFF0000 1000"}};
    for (const auto& row : rows) {
        const kest_attributeValue attributes[6] = {400, 1, 15, 1, 2, row.mode};
        EXPECT_EQ(row.block, blockOf(device, 1, true, attributes, 0)) << row.mode;
    }
}

TEST_F(KestWobu, BlockTakesTheLowHalfOfTheWriteCycleAndNotTheSpeed)
{
    const kest_attributeValue attributes[6] = {100, 1, 0x00050007, 1, 1, 2};
    // a write of one 32-byte block: 64 ms at another speed than 400, and one page's cycle of 0x50007 ms
    EXPECT_EQ("400 A0 2 327751 7 32 FFFB0000 1000",
              blockOf({0xA0, KEST_DEV_SEEPROM_32K, 0, nullptr}, 32, false, attributes, 0));
}

} // namespace
