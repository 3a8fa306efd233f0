/// Which lines of a ring an error entry takes. The tests choose times and thread numbers, so that the size of each line
/// is known.
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

#include "platform/host/trace/collect.h"
#include "platform/host/trace/ring.h"
#include "tests/host/trace_support.h"

namespace kest::test
{
namespace
{

using namespace host::trace;

// 22:13:20.123456
constexpr std::uint64_t firstTimeNs = 1'700'000'000'123'456'000u;

class TraceCollect : public ::testing::Test
{
protected:
    TraceCollect() { makeRing(2048); }

    void makeRing(unsigned size)
    {
        static int number = 0;
        m_name = "collect" + std::to_string(++number);
        m_ring = newRing(m_name.c_str(), size);
        place().header.clockOffset[0] = place().header.clockOffset[1] = 0;
    }

    /// A text record of a thread, `micros` after the first time.
    void write(std::string_view text, std::uint64_t micros, std::uint32_t thread = 1)
    {
        const std::uint64_t time = firstTimeNs + micros * 1000;
        const auto used = static_cast<std::uint32_t>(text.size() + 1);
        std::uint32_t words[maximumRecordBytes / sizeof(std::uint32_t)]{};
        words[wordTimeHigh] = static_cast<std::uint32_t>(time >> 32);
        words[wordTimeLow] = static_cast<std::uint32_t>(time);
        words[wordHash] = 0x11223344;
        words[wordLine] = 7;
        words[wordThread] = thread;
        words[wordKind] = kindText << 16 | used;
        std::memcpy(words + recordHeadWords, text.data(), text.size());
        lane(thread).append(words, recordBytes(used) / sizeof(std::uint32_t), m_ring->laneUnits, m_ring->seed);
    }

    /// The state of a record whose writer has taken its place but not stored its words: the old words are still there.
    void reserve(std::uint32_t units, std::uint32_t thread = 1)
    {
        auto* position = reinterpret_cast<std::uint32_t*>(&lane(thread));
        *position = advanced(*position, units, m_ring->laneUnits);
    }

    [[nodiscard]] std::string collected(unsigned bytes) const { return host::collectTrace(m_name.c_str(), bytes); }

private:
    storage& place() { return *m_ring->place.load(); }
    ringLane& lane(std::uint32_t thread) { return place().lane(thread % laneCount, m_ring->laneStride); }

    std::string m_name;
    trace_wobu_descriptor m_ring = nullptr;
};

TEST_F(TraceCollect, LinesAreTakenThatFitToTheLastByte)
{
    write("first", 0);
    write("second,2", 1);
    write("third", 2);
    const std::string three = "22:13:20.123456 1 11223344 7 first\n"
                              "22:13:20.123457 1 11223344 7 second,2\n"
                              "22:13:20.123458 1 11223344 7 third\n";
    const std::string two = "22:13:20.123457 1 11223344 7 second,2\n"
                            "22:13:20.123458 1 11223344 7 third\n";
    const std::string one = "22:13:20.123458 1 11223344 7 third\n";
    EXPECT_EQ(three, collected(0xFFFFFFFF));
    EXPECT_EQ(three, collected(35 + 38 + 35));
    EXPECT_EQ(two, collected(35 + 38 + 34));
    EXPECT_EQ(two, collected(38 + 35));
    EXPECT_EQ(one, collected(38 + 34));
    EXPECT_EQ(one, collected(35));
    EXPECT_EQ("", collected(34));
    EXPECT_EQ("", collected(0));
}

TEST_F(TraceCollect, ALineThatDoesNotFitHidesShorterOnesBeforeIt)
{
    write("a", 0);
    write("much longer than the others", 1);
    write("b", 2);
    EXPECT_EQ("22:13:20.123458 1 11223344 7 b\n", collected(31 + 56));
    EXPECT_EQ("22:13:20.123457 1 11223344 7 much longer than the others\n"
              "22:13:20.123458 1 11223344 7 b\n",
              collected(31 + 57));
}

TEST_F(TraceCollect, AnEmptyRingGivesNothing) { EXPECT_EQ("", collected(500)); }

/// 2048 bytes hold 51 records of 40 bytes and a part of another.
TEST_F(TraceCollect, AWrappedRingGivesWhatIsWholeInIt)
{
    for (unsigned number = 0; number < 900; ++number) {
        write("n " + std::to_string(100 + number), number);
    }
    EXPECT_EQ("22:13:20.124353 1 11223344 7 n 997\n"
              "22:13:20.124354 1 11223344 7 n 998\n"
              "22:13:20.124355 1 11223344 7 n 999\n",
              collected(3 * 35 + 34));
    const std::string all = collected(65536);
    EXPECT_EQ(51u * 35, all.size());
    EXPECT_TRUE(all.starts_with("22:13:20.124305 1 11223344 7 n 949\n")) << all;
}

TEST_F(TraceCollect, ARecordThatIsBeingWrittenIsLeftOut)
{
    write("before", 0);
    reserve(5);
    EXPECT_EQ("22:13:20.123456 1 11223344 7 before\n", collected(500));
    write("behind", 1);
    EXPECT_EQ("22:13:20.123456 1 11223344 7 before\n"
              "22:13:20.123457 1 11223344 7 behind\n",
              collected(500));
}

/// The lap before left whole records where the writer is about to store.
TEST_F(TraceCollect, ARecordThatIsBeingWrittenIntoAWrappedRingIsLeftOut)
{
    for (unsigned number = 0; number < 100; ++number) {
        write("n " + std::to_string(100 + number), number);
    }
    reserve(5);
    write("behind", 100);
    EXPECT_EQ("22:13:20.123555 1 11223344 7 n 199\n"
              "22:13:20.123556 1 11223344 7 behind\n",
              collected(36 + 35));
}

TEST_F(TraceCollect, LinesOfThreadsAreInOrderOfTime)
{
    write("one", 0, 1);
    write("one", 3, 1);
    write("two", 1, 2);
    write("two", 4, 2);
    write("three", 2, 3);
    EXPECT_EQ("22:13:20.123457 2 11223344 7 two\n"
              "22:13:20.123458 3 11223344 7 three\n"
              "22:13:20.123459 1 11223344 7 one\n"
              "22:13:20.123460 2 11223344 7 two\n",
              collected(33 + 35 + 33 + 33));
}

/// Entries take some lines of rings that hold hundreds. The lines that they leave must not be formatted.
TEST_F(TraceCollect, NoMoreRecordsAreFormattedThanFitAndOne)
{
    makeRing(8092);
    for (unsigned number = 0; number < 900; ++number) {
        write("n " + std::to_string(100 + number), number, number % laneCount);
    }
    std::uint32_t before = host::recordsFormatted();
    EXPECT_EQ(14u * 35, collected(500).size());
    EXPECT_EQ(15u, host::recordsFormatted() - before);
    before = host::recordsFormatted();
    EXPECT_EQ("", collected(34));
    EXPECT_EQ(1u, host::recordsFormatted() - before);
    before = host::recordsFormatted();
    EXPECT_EQ(900u * 35, collected(65536).size());
    EXPECT_EQ(900u, host::recordsFormatted() - before);
}

} // namespace
} // namespace kest::test
