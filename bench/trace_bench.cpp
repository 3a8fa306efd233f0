/// What a trace costs: one write, over one read of the clock that it uses; writes of two threads at once; and for
/// comparison a plain snprintf of the same line.
/// Prints one JSON object.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <sched.h>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "platform/trace.h"

namespace
{

constexpr int writes = 50'000;
// short rounds, of which the best counts: the machine may have other work
constexpr int rounds = 200;

using stopwatch = std::chrono::steady_clock;

trace_wobu_descriptor buffer;

double nsPerCall(stopwatch::duration taken) { return std::chrono::duration<double, std::nano>(taken).count() / writes; }

void writeTraces(int seed)
{
    for (int index = 0; index < writes; ++index) {
        trace_wobu_write_all(buffer, 0x266E6775, " %s,%d,%d", 42, 0, "kest_wobuClose", seed, index);
    }
}

double measureWrites()
{
    const auto begin = stopwatch::now();
    writeTraces(1);
    return nsPerCall(stopwatch::now() - begin);
}

double measureClock()
{
    std::uint64_t time = 0;
    const auto begin = stopwatch::now();
    for (int index = 0; index < writes; ++index) {
        time = kest::clockNs(CLOCK_MONOTONIC);
        // keeps the compiler from dropping the time
        asm volatile("" : : "r"(&time) : "memory");
    }
    return nsPerCall(stopwatch::now() - begin);
}

double measureSnprintf()
{
    std::array<char, 128> text{};
    const auto begin = stopwatch::now();
    for (int index = 0; index < writes; ++index) {
        std::snprintf(text.data(), text.size(), " %s,%d,%d", "kest_wobuClose", 1, index);
        // keeps the compiler from dropping the text
        asm volatile("" : : "r"(text.data()) : "memory");
    }
    return nsPerCall(stopwatch::now() - begin);
}

/// Binds a thread to a processor of its own. Otherwise the scheduler may leave both on one processor for a whole round.
void stayOn(int processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    sched_setaffinity(0, sizeof set, &set);
}

/// Runs `count` threads that begin to write when the last of them is awake. @return ns of a thread's write, on average
double measureThreads(int count)
{
    std::atomic<int> awake{0};
    std::vector<stopwatch::time_point> begins(static_cast<std::size_t>(count)), ends(begins);
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < count; ++thread) {
        threads.emplace_back([&, thread] {
            stayOn(thread);
            ++awake;
            while (awake < count) {}
            begins[static_cast<std::size_t>(thread)] = stopwatch::now();
            writeTraces(thread);
            ends[static_cast<std::size_t>(thread)] = stopwatch::now();
        });
    }
    // joins the threads
    threads.clear();
    return nsPerCall(*std::ranges::max_element(ends) - *std::ranges::min_element(begins));
}

} // namespace

int main()
{
    trace_wobu_init_buffer(&buffer, "kest", 8092);
    double write = 1e9, one = 1e9, two = 1e9, text = 1e9, clock = 1e9;
    for (int round = 0; round < rounds; ++round) {
        clock = std::min(clock, measureClock());
        write = std::min(write, measureWrites());
        one = std::min(one, measureThreads(1));
        two = std::min(two, measureThreads(2));
        text = std::min(text, measureSnprintf());
    }
    std::printf("{\"trace.clock_ratio\": %.3f, \"trace.clock_ns\": %.1f, \"trace.write_ns\": %.1f, "
                "\"trace.two_thread_scaling\": %.2f, \"trace.snprintf_ns\": %.1f}\n",
                write / clock, clock, write, 2 * one / two, text);
    return 0;
}
