/// Rings in memory: how they are made and wrap round, many threads, and what a write may not do.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <malloc.h>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>

#include "tests/host/trace_support.h"
#include "tests/places.h"

namespace kest::test
{
namespace
{

int makeRing(const char* name, unsigned size)
{
    trace_wobu_descriptor ring = newRing("placeholder");
    errno = 0;
    const int result = trace_wobu_init_buffer(&ring, name, size);
    EXPECT_EQ(result == 0, ring != nullptr);
    return result == 0 ? 0 : errno;
}

TEST(TraceRing, NamesAndSizes)
{
    EXPECT_EQ(EINVAL, makeRing(nullptr, 8092));
    EXPECT_EQ(EINVAL, makeRing("", 8092));
    EXPECT_EQ(EINVAL, makeRing("../kest", 8092));
    EXPECT_EQ(EINVAL, makeRing("a name of thirty-two characters!", 8092));
    EXPECT_EQ(EINVAL, makeRing("size", 0));
    EXPECT_EQ(EINVAL, makeRing("size", 1u << 20));
    EXPECT_EQ(0, makeRing("thirty_one_characters_long_name", 8092));
    EXPECT_EQ(0, makeRing("size", 1));
    errno = 0;
    EXPECT_EQ(-1, trace_wobu_init_buffer(nullptr, "kest", 8092));
    EXPECT_EQ(EINVAL, errno);
}

TEST(TraceRing, SameNameIsSameRing) { EXPECT_EQ(newRing("same", 8092), newRing("same", 4000)); }

TEST(TraceRing, WithoutRingNothingHappens)
{
    errno = 42;
    trace_wobu_write_all(nullptr, 1, " %s", 1, 0, "nowhere");
    trace_wobu_write2(nullptr, 0, 4, "head", 4, "data");
    EXPECT_EQ(42, errno);
}

TEST(TraceRing, KeepsErrno)
{
    trace_wobu_descriptor ring = newRing("errno");
    errno = 42;
    trace_wobu_write_all(ring, 1, " %s,%d", 1, 0, "here", 1);
    trace_wobu_write2(ring, 0, 4, "head", 4, "data");
    EXPECT_EQ(42, errno);
}

/// 8092 bytes hold exactly 126 records of 64 bytes, and 28 bytes of a 127th, which is lost.
TEST(TraceRing, SizeIsItsCapacityForRecords)
{
    trace_wobu_descriptor ring = newRing("capacity", 8092);
    for (int number = 0; number < 1000; ++number) {
        // 32 + 7 + 19 + 4, rounded up
        trace_wobu_write_all(ring, 1, " %s,%d", 1, 0, "eighteen_letters__", number);
    }
    const auto records = recordsOf("capacity");
    ASSERT_EQ(126u, records.size());
    for (std::size_t index = 0; index < records.size(); ++index) {
        EXPECT_EQ(" eighteen_letters__," + std::to_string(1000 - 126 + index), records[index].text);
    }
}

TEST(TraceRing, WrapsRoundWithRecordsOfEverySize)
{
    trace_wobu_descriptor ring = newRing("wrap", 2048);
    std::string text;
    for (int number = 0; number < 3000; ++number) {
        text.assign(static_cast<std::size_t>(number * 7 % 250), 'x');
        trace_wobu_write_all(ring, 1, "%d %s", 1, 0, number, text.c_str());
        const auto records = recordsOf("wrap");
        ASSERT_FALSE(records.empty());
        ASSERT_EQ(std::to_string(number) + " " + text, records.back().text);
        ASSERT_EQ(std::to_string(number + 1 - static_cast<int>(records.size())),
                  records.front().text.substr(0, records.front().text.find(' ')));
    }
}

TEST(TraceRing, LapNumbersWrapRound)
{
    trace_wobu_descriptor ring = newRing("laps", 2048);
    // 992 bytes of payload: two records a lap, so 70,000 laps
    for (int number = 0; number < 140'000; ++number) {
        trace_wobu_write2(ring, 0, 0, nullptr, 984, std::string(984, 'x').data());
    }
    trace_wobu_write_all(ring, 1, "last", 1, 0);
    EXPECT_EQ("last", recordsOf("laps").back().text);
    EXPECT_EQ(2u, recordsOf("laps").size());
}

/// One thread's lines never displace another's, as long as there are no more threads than lanes.
TEST(TraceRing, BusyThreadLeavesTheOthersLines)
{
    trace_wobu_descriptor ring = newRing("lanes", 4096);
    trace_wobu_write_all(ring, 1, "quiet", 1, 0);
    std::thread([ring] {
        for (int number = 0; number < 10'000; ++number) {
            trace_wobu_write_all(ring, 1, "busy %d", 1, 0, number);
        }
    }).join();
    const auto records = recordsOf("lanes");
    EXPECT_EQ("quiet", records.front().text);
    EXPECT_EQ("busy 9999", records.back().text);
    EXPECT_NE(records.front().thread, records.back().thread);
}

std::string lineOf(int thread, int number)
{
    return std::to_string(thread) + ":" + std::to_string(number) + ":" +
           std::string(static_cast<std::size_t>(number % 40), 'z');
}

void writeLine(trace_wobu_descriptor ring, int thread, int number)
{
    trace_wobu_write_all(ring, static_cast<std::uint32_t>(thread), "%d:%d:%s", number, 0, thread, number,
                         std::string(static_cast<std::size_t>(number % 40), 'z').c_str());
}

/// All lines are whole, and those of each thread are in their order.
void expectSound(const std::vector<host::traceRecord>& records)
{
    std::vector<int> latest(100, -1);
    for (const host::traceRecord& record : records) {
        const auto thread = static_cast<int>(record.hash);
        const auto number = static_cast<int>(record.line);
        ASSERT_GT(100, thread);
        ASSERT_EQ(lineOf(thread, number), record.text);
        ASSERT_LT(latest[static_cast<std::size_t>(thread)], number);
        latest[static_cast<std::size_t>(thread)] = number;
    }
}

/// More threads than lanes, in rings so small that writers overtake one another, while a reader reads.
TEST(TraceRing, ManyThreadsAndAReader)
{
    trace_wobu_descriptor ring = newRing("hammer", 2048);
    std::atomic<int> running{16};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 16; ++thread) {
        threads.emplace_back([ring, thread, &running] {
            for (int number = 0; number < 5000; ++number) {
                writeLine(ring, thread, number);
            }
            --running;
        });
    }
    while (running > 0) {
        expectSound(recordsOf("hammer"));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto records = recordsOf("hammer");
    expectSound(records);
    // all lanes full: the longest of these lines takes 96 bytes
    EXPECT_LE(8u * 2048 / 128, records.size());
}

/// The rings move while four threads write. The last lines of each thread are there afterwards, without a gap.
TEST(TraceRing, MovingIntoAFileLosesNoLine)
{
    // they are slow there
    const int moves = underSanitizer || isEmulated() ? 3 : 10;
    // of at most 96 bytes: all fit
    constexpr int lines = 400;
    trace_wobu_descriptor ring = newRing("moving", 100'000);
    TemporaryFolder folder;
    std::atomic<int> begun{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([ring, thread, &begun] {
            for (int number = 0; number < lines; ++number) {
                writeLine(ring, thread, number);
                begun += number == 20 ? 1 : 0;
                if (number % 16 == 0) {
                    sched_yield();
                }
            }
        });
    }
    while (begun == 0) {
        sched_yield();
    }
    for (int move = 0; move < moves; ++move) {
        host::useTraceFolder(folder.path() / std::to_string(move));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto records = recordsOf("moving");
    expectSound(records);
    EXPECT_EQ(4u * lines, records.size());
}

/// From here on the kernel kills the thread's process at any system call except exit. (Strict mode would also forbid
/// the clock's counter.)
void forbidSystemCalls()
{
    sock_filter rules[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit, 0, 1),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS)};
    sock_fprog program{4, rules};
    const int bound = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    const int filter = prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
    if (bound != 0 || filter != 0) {
        abort();
    }
}
void leave(int code) { syscall(SYS_exit, code); }

TEST(TraceRing, WriteTakesNoSystemCall)
{
    if (isEmulated() || underSanitizer) {
        GTEST_SKIP() << "the emulator or the sanitizer makes system calls of its own";
    }
    trace_wobu_descriptor memory = newRing("strict");
    const int clock = inChild([] {
        timespec now{};
        forbidSystemCalls();
        clock_gettime(CLOCK_MONOTONIC, &now);
        leave(0);
        return 1;
    });
    if (clock != 0) {
        GTEST_SKIP() << "this machine's clock cannot be read without a system call";
    }
    const int control = inChild([] {
        forbidSystemCalls();
        getppid();
        leave(0);
        return 1;
    });
    EXPECT_EQ(256 + SIGSYS, control);
    for (const bool inFile : {false, true}) {
        TemporaryFolder folder;
        EXPECT_EQ(0, inChild([&] {
                      if (inFile) {
                          host::useTraceFolder(folder.path());
                      }
                      // a thread that has never traced
                      std::thread writer([memory] {
                          forbidSystemCalls();
                          for (int number = 0; number < 1000; ++number) {
                              trace_wobu_write_all(memory, 1, " %s,%d,%ld,%s", 1, 0, "strict", number, 5L, "text");
                              trace_wobu_write2(memory, 0, 4, "head", 4, "data");
                          }
                          syscall(SYS_exit, 0);
                      });
                      writer.join();
                      forbidSystemCalls();
                      trace_wobu_write_all(memory, 1, " %s", 1, 0, "strict");
                      leave(0);
                      return 1;
                  }))
            << (inFile ? "in a file" : "in memory");
    }
}

/// The C library makes a cache at a thread's first allocation or release. It counts as heap in use even after the block
/// was released.
TEST(TraceRing, WriteAllocatesNothing)
{
    if (underSanitizer) {
        GTEST_SKIP() << "the sanitizer has a heap of its own";
    }
    trace_wobu_descriptor ring = newRing("heap");
    std::size_t control = 0, traced = 1;
    std::thread([&] {
        const std::size_t before = mallinfo2().uordblks;
        for (int number = 0; number < 1000; ++number) {
            trace_wobu_write_all(ring, 1, " %s,%d,%ld,%s", 1, 0, "heap", number, 5L, "text");
            trace_wobu_write2(ring, 0, 4, "head", 4, "data");
        }
        traced = mallinfo2().uordblks - before;
    }).join();
    std::thread([&] {
        const std::size_t before = mallinfo2().uordblks;
        void* volatile block = malloc(40);
        free(block);
        control = mallinfo2().uordblks - before;
    }).join();
    EXPECT_EQ(0u, traced);
    EXPECT_LT(0u, control);
}

} // namespace
} // namespace kest::test
