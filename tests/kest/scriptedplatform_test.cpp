/// The checks of the scripted platform do fail tests, and its log lines look as they should.
#include <gtest/gtest-spi.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "kesttrace.h"
#include "tests/platform/scripted.h"
#include "tests/sanitizers.h"

using namespace scripted;

namespace
{

/// Not the usual fixture: these tests look at failing verifications.
class ScriptedPlatform : public ::testing::Test
{
protected:
    ScriptedPlatform() { platform.forget(); }
    ~ScriptedPlatform() override { platform.forget(); }
    Platform& platform = Platform::instance();
};

// The statements that the failure macros take cannot use local names.
Platform& it() { return Platform::instance(); }
mern_t handle;
void* buffer;
ErrlEntry* entry;

TEST_F(ScriptedPlatform, FailsOnACallThatIsNotExpected)
{
    handle = platform.openHandle();
    EXPECT_NONFATAL_FAILURE(mern_iic_close(handle), "the script does not expect mern_iic_close(h1)");
    handle = platform.openHandle();
    EXPECT_NONFATAL_FAILURE(mern_iic_seek(handle, 5, 0), "mern_iic_seek(h2, 5, 0)");
    EXPECT_NONFATAL_FAILURE(mern_iic_open(MernNode(), "p", 2), "mern_iic_open(node -1, \"p\", 0x2)");
}

TEST_F(ScriptedPlatform, FailsOnAScriptedAnswerLeftOver)
{
    platform.seeks(2);
    EXPECT_NONFATAL_FAILURE(it().verify(), "2 scripted answer(s) of mern_iic_seek were not asked for");
}

TEST_F(ScriptedPlatform, FailsAtAResetOnWhatIsLeftAndForgetsIt)
{
    platform.seeks(2);
    EXPECT_NONFATAL_FAILURE(it().reset(), "2 scripted answer(s) of mern_iic_seek were not asked for");
    // nothing is left to report
    platform.reset();
    static_cast<void>(platform.makeBuffer(counting(3)));
    platform.forget();
    platform.verify();
}

TEST_F(ScriptedPlatform, FailsOnAHandleThatIsNotClosed)
{
    platform.opens();
    mern_iic_open(MernNode(), "p", MERN_OPEN_READ_WRITE_SYNC);
    EXPECT_EQ(1, platform.openHandles());
    EXPECT_NONFATAL_FAILURE(it().verify(), "h1 was not closed");
}

TEST_F(ScriptedPlatform, FailsOnTheUseOfAClosedHandle)
{
    platform.opens().closes();
    handle = mern_iic_open(MernNode(), "p", MERN_OPEN_READ_WRITE_SYNC);
    mern_iic_close(handle);
    EXPECT_NONFATAL_FAILURE(mern_iic_reset(handle, 1), "mern_iic_reset(h1, 1): after its close");
    platform.verify();
}

TEST_F(ScriptedPlatform, FailsOnAHandleItNeverGave)
{
    handle = platform.openHandle();
    ++handle.words[1];
    EXPECT_NONFATAL_FAILURE(mern_iic_reset(handle, 1), "mern_iic_reset(unknown handle, 1): not a handle");
    handle = MERN_INVALID;
    handle.words[5] = 7;
    EXPECT_NONFATAL_FAILURE(mern_iic_reset(handle, 1), "mern_iic_reset(invalid handle, 1): not a handle");
}

TEST_F(ScriptedPlatform, FailsOnABufferThatIsNotReleasedOrTwice)
{
    buffer = tavo_malloc(5);
    EXPECT_NONFATAL_FAILURE(it().verify(), "memory1 (5 bytes) was not released");
    void* const copy = buffer;
    tavo_util_free(&buffer);
    EXPECT_EQ(nullptr, buffer);
    tavo_util_free(&buffer);
    platform.verify();
    buffer = copy;
    EXPECT_NONFATAL_FAILURE(tavo_util_free(&buffer), "tavo_util_free of ");
}

TEST_F(ScriptedPlatform, FailsOnFirstFailureDataLeftUnlessExpected)
{
    handle = platform.openHandle();
    platform.extractsFfdc(hex("01"));
    mern_iic_ffdc_extract(handle, 0, &buffer);
    EXPECT_NONFATAL_FAILURE(it().verify(), "stay unreleased");
    platform.expectUnreleasedFfdc();
    platform.verify();
    tavo_util_free(&buffer);
    // expected, and not met
    EXPECT_NONFATAL_FAILURE(it().verify(), "stay unreleased");
}

TEST_F(ScriptedPlatform, FailsOnAnEntryThatIsNotDeleted)
{
    entry = platform.makeEntry();
    EXPECT_NONFATAL_FAILURE(it().verify(), "entry1 was not deleted");
    delete entry;
    platform.verify();
    EXPECT_TRUE(platform.entry(1).deleted);
}

TEST_F(ScriptedPlatform, FailsOnTheWrongDeletionAndOnNone)
{
#ifdef KEST_ADDRESS_SANITIZER
    GTEST_SKIP() << "the address sanitizer checks this";
#else
    void* const block = ::operator new(4, std::nothrow);
    EXPECT_EQ(1, platform.liveAllocations());
    EXPECT_NONFATAL_FAILURE(it().verify(), "blocks that the library allocated are not deleted");
    // otherwise the compiler would see it
    void (*volatile wrongly)(void*) = ::operator delete[];
    wrongly(block);
    EXPECT_NONFATAL_FAILURE(it().verify(), "delete[] of what came from new");
    platform.verify();
#endif
}

TEST_F(ScriptedPlatform, FailsOnATraceWithoutTheFunctionsName)
{
    EXPECT_NONFATAL_FAILURE(trace_wobu_write_all(kest::kest_trace, 1, "%d", 1, 0, 5), "no function's name");
    EXPECT_NONFATAL_FAILURE(trace_wobu_write_all(nullptr, 1, " %s", 1, 0, "f"), "a buffer other than");
}

TEST_F(ScriptedPlatform, FailsOnAReadOfAnotherLength)
{
    handle = platform.openHandle();
    buffer = platform.makeBuffer(counting(8));
    platform.reads(counting(4)).reads(counting(8));
    EXPECT_NONFATAL_FAILURE(mern_iic_read(handle, buffer, 8), "the script has 4 bytes for it");
    EXPECT_EQ(8, mern_iic_read(handle, buffer, 8));
    tavo_util_free(&buffer);
}

TEST_F(ScriptedPlatform, FailsOnAnEntryThatWasNotMade)
{
    EXPECT_NONFATAL_FAILURE(it().entry(1), "no entry1: 0 were made");
}

TEST_F(ScriptedPlatform, ReturnsWithErrno)
{
    handle = platform.openHandle();
    errno = 0;
    platform.failsSeek(ENXIO).seeks().readsShort(hex("aa bb"), 0);
    EXPECT_EQ(-1, mern_iic_seek(handle, 1, 0));
    EXPECT_EQ(ENXIO, errno);
    EXPECT_EQ(0, mern_iic_seek(handle, 1, 0));
    EXPECT_EQ(4000, errno);
    std::uint8_t data[4] = {};
    EXPECT_EQ(2, mern_iic_read(handle, data, 4));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(0xBB, data[1]);
}

TEST_F(ScriptedPlatform, FailsTheNthCall)
{
    handle = platform.openHandle();
    platform.healthy().failCall(2, EIO);
    EXPECT_EQ(0, mern_iic_seek(handle, 1, 0));
    EXPECT_FALSE(platform.faultWasMet());
    EXPECT_EQ(-1, mern_iic_seek(handle, 2, 0));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(0, mern_iic_seek(handle, 3, 0));
    EXPECT_EQ("mern_iic_seek(h1, 2, 0)", platform.failedCall());
    platform.failCall(1, ENODEV, true);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, mern_iic_write(handle, "x", 1));
        EXPECT_EQ(ENODEV, errno);
    }
    platform.failCall(0, 0);
    platform.failCall(1, 0, false, kindMemory | kindService);
    EXPECT_EQ(1, mern_iic_write(handle, "x", 1));
    EXPECT_EQ(nullptr, tavo_malloc(3));
}

TEST_F(ScriptedPlatform, CountsLocks)
{
    platform.opens().configures(3).closes();
    mern_t open = mern_iic_open(MernNode(), "p", MERN_OPEN_READ_WRITE_SYNC);
    std::uint16_t lock[4] = {0, 0x80, 0, 0};
    mern_iic_config(open, 2, WOBU_IIC_LOCK, lock, 8);
    EXPECT_EQ(1, platform.heldLocks());
    // the time-out does not belong to a lock's identity
    lock[2] = 1;
    mern_iic_config(open, 2, WOBU_IIC_UNLOCK, lock, 8);
    EXPECT_EQ(0, platform.heldLocks());
    mern_iic_config(open, 2, WOBU_IIC_LOCK, lock, 8);
    EXPECT_EQ(1, platform.heldLocks());
    mern_iic_close(open);
    EXPECT_EQ(0, platform.heldLocks());
    platform.verify();
}

TEST_F(ScriptedPlatform, LinesShowWordsOnEveryMachineAlike)
{
    handle = platform.openHandle();
    platform.configures(5).configuresReading(word(3)).configures(1);
    std::uint32_t speed = 400;
    mern_iic_config(handle, 2, WOBU_IIC_SPEED, &speed, 4);
    std::uint8_t block[44] = {};
    const auto put16 = [&block](std::size_t at, std::uint16_t value) { std::memcpy(block + at, &value, 2); };
    const auto put32 = [&block](std::size_t at, std::uint32_t value) { std::memcpy(block + at, &value, 4); };
    put16(0, 400);
    put16(2, 0xA0);
    put16(4, 2);
    put32(12, 5000);
    put16(20, 15);
    put32(24, 64);
    put32(32, 0xFFFB0001);
    put32(40, 1000);
    mern_iic_config(handle, 2, WOBU_IIC_BLOCK, block, 44);
    block[38] = 9;
    mern_iic_config(handle, 2, WOBU_IIC_BLOCK, block, 44);
    std::uint8_t device[8] = {0, 2, 0, 0xC0, 0, 0, 1, 0xF4};
    mern_iic_config(handle, 2, WOBU_IIC_LOCK, device, 8);
    struct {
        std::uint16_t kind, address;
        std::uint32_t timeout;
    } hub{0, 0x80, 77};
    mern_iic_config(handle, 2, WOBU_IIC_UNLOCK, &hub, 8);
    mern_iic_config(handle, 1, WOBU_IIC_DETECT_STATE, &speed, 4);
    EXPECT_EQ(3U, speed);
    mern_iic_config(handle, 2, static_cast<wobu_iic_cfg_t>(77), device, 3);
    EXPECT_EQ(R"(
mern_iic_config(h1, 2, 2, 0x190)
mern_iic_config(h1, 2, 19, block: speed 400, address 0xA0, offset bytes 2, timeout 5000, write cycle 15, page 64, flags 0xFFFB0001, busy wait 1000)
mern_iic_config(h1, 2, 19, block: speed 400, address 0xA0, offset bytes 2, timeout 5000, write cycle 15, page 64, flags 0xFFFB0001, busy wait 1000, byte 38 0x9)
mern_iic_config(h1, 2, 17, kind 2, address 0xC0, timeout 500, big-endian)
mern_iic_config(h1, 2, 18, kind 0, address 0x80, timeout 77)
mern_iic_config(h1, 1, 15, 4 bytes)
mern_iic_config(h1, 2, 77, 3 bytes: 00 02 00)
)",
              platform.log());
}

TEST_F(ScriptedPlatform, LinesShowTextsAndLongData)
{
    entry = platform.makeEntry({.srcs = {}});
    entry->addUsrDtls("a \"quoted\" text", 15, 0x1300, 1, 5);
    entry->addUsrDtls("\n", 1, 0x1300, 1, 5);
    const Bytes data = counting(100);
    entry->addUsrDtls(data.data(), 100, 0x1300, 1, 6);
    EXPECT_EQ(R"(
entry1.addUsrDtls("a \"quoted\" text", 0x1300, 1, 5)
entry1.addUsrDtls(1 byte: 0a, 0x1300, 1, 5)
entry1.addUsrDtls(100 bytes: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f .. 5c 5d 5e 5f 60 61 62 63 sum 0xDE239011, 0x1300, 1, 6)
)",
              platform.log());
    delete entry;
}

TEST_F(ScriptedPlatform, AnEntryCanTakeOverAnothers)
{
    entry = platform.makeEntry({.returnCode = 0x1234, .srcs = {{.module = 7, .reason = 0x77}}});
    ErrlEntry* target = platform.makeEntry();
    *target = *entry;
    EXPECT_EQ(entry->plid(), target->plid());
    EXPECT_EQ(0x1234U, target->getRC());
    unsigned int count = 0;
    const std::uint32_t* const words = target->getSRC(0)->getHexData(count);
    EXPECT_EQ(8U, count);
    EXPECT_EQ(0x77U, words[2]);
    EXPECT_EQ(nullptr, target->getSRC(1));
    EXPECT_EQ(R"(
entry2 = copy of entry1
)",
              platform.calls());
    delete entry;
    delete target;
}

TEST_F(ScriptedPlatform, TracesShowTheirArguments)
{
    trace_wobu_write_all(kest::kest_trace, 0x1234ABCD, " %s,%d,%x,%4x,%u,%X,%s,%c,%ld,%p", 77, 0, "f", -1, 255U, 16U,
                         4000000000U, 0xABU, "g", 'c', -5L, static_cast<void*>(nullptr));
    EXPECT_EQ(R"(
trace(0x1234ABCD, " %s,%d,%x,%4x,%u,%X,%s,%c,%ld,%p", "f", -1, 0xFF, 0x10, 4000000000, 0xAB, "g", 'c', -5, null)
)",
              platform.traces());
    EXPECT_EQ(R"(
77 trace(0x1234ABCD, " %s,%d,%x,%4x,%u,%X,%s,%c,%ld,%p", "f", -1, 0xFF, 0x10, 4000000000, 0xAB, "g", 'c', -5, null)
)",
              platform.tracesWithLines());
}

TEST_F(ScriptedPlatform, MessagesKeepTheirData)
{
    Message message{"reply", 0x1234, 0x8001, hex("01 02")};
    const NetcMessage& seen = message;
    EXPECT_EQ(2U, seen.dataSize());
    EXPECT_EQ(1, seen.dataPointer()[0]);
    EXPECT_TRUE(message.setData("abc", 3));
    message.refusesData = true;
    EXPECT_FALSE(message.setData("d", 1));
    EXPECT_EQ(0U, seen.dataSize());
    EXPECT_EQ(R"(
reply.setData("abc")
reply.setData("d")
)",
              platform.log());
}

TEST_F(ScriptedPlatform, CatchesTheStandardErrorStream)
{
    StandardError captured;
    std::fputs("one line\n", stderr);
    EXPECT_EQ("one line\n", captured.text());
}

} // namespace
