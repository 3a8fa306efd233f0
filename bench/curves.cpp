/// How costs grow: bytes of a read, chips of a simulated machine, threads that trace. Prints one JSON object of curves,
/// each a list of points [size, value].
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bench/scratchfolder.h"
#include "kest/seeprom.h"
#include "platform/errl.h"
#include "platform/host/configuration/configuration.h"
#include "platform/tavo.h"
#include "platform/trace.h"

namespace
{

using nlohmann::json;
using stopwatch = std::chrono::steady_clock;

/// The best round counts: the machine may have other work.
constexpr int rounds = 7;
constexpr int readsARound = 20;
constexpr int tracesARound = 20'000;
constexpr int chipsOfBus = 8;

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "curves: %s\n", what.c_str());
    std::exit(1);
}

/// Measures in a child: a process uses one configuration.
double inChild(const std::function<double()>& measure)
{
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        fail("no pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        const double value = measure();
        _exit(write(ends[1], &value, sizeof value) == sizeof value ? 0 : 1);
    }
    close(ends[1]);
    double value = 0;
    const bool told = read(ends[0], &value, sizeof value) == sizeof value;
    close(ends[0]);
    waitpid(child, nullptr, 0);
    if (!told) {
        fail("a measurement failed");
    }
    return value;
}

double usOfProcess()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

/// A machine with a 24C512 on its first bus, and so many chips in all.
void makeMachine(const std::filesystem::path& folder, int chips)
{
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "kest.toml") << "state = \"state\"\n[machine]\nfolder = \".\"\n";
    std::ofstream machine(folder / "machine.toml");
    for (int bus = 0; bus * chipsOfBus < chips; ++bus) {
        machine << "[[bus]]\nname = \"bus" << bus << "\"\n";
    }
    for (int chip = 0; chip < chips; ++chip) {
        machine << "[[chip]]\nbus = \"bus" << chip / chipsOfBus << "\"\ntype = \"" << (chip == 0 ? "24C512" : "24C02")
                << "\"\naddress = " << 0xA0 + 2 * (chip % chipsOfBus) << "\nimage = \"" << chip << ".bin\"\n";
    }
}

/// @return microseconds of processor time of a read, from opening the device to closing it
double usOfRead(const std::filesystem::path& folder, unsigned int bytes)
{
    kest::host::useConfigurationFile(folder / "kest.toml");
    constexpr char text[] = "sim:bus0,L,2C0512,A0";
    tavo_deviceaddress address{17, {}};
    std::copy_n(text, sizeof text, address.location);
    // 4: hardware
    const kest_attributeValue attributes[KEST_ATTR_COUNT] = {400, 1, 15, 4, 2, 1};
    double best = 1e12;
    for (int round = 0; round < rounds; ++round) {
        const double begin = usOfProcess();
        for (int count = 0; count < readsARound; ++count) {
            unsigned int length = bytes;
            unsigned char* data = nullptr;
            if (KEST_seepromRead(address, nullptr, 0, &length, &data, attributes) != nullptr || length != bytes) {
                _exit(1);
            }
            void* block = data;
            tavo_util_free(&block);
        }
        best = std::min(best, (usOfProcess() - begin) / readsARound);
    }
    return best;
}

/// @return traces a second by so many threads
double tracesPerSecond(unsigned threads)
{
    trace_wobu_descriptor buffer = nullptr;
    trace_wobu_init_buffer(&buffer, "bench", 65536);
    double best = 0;
    for (int round = 0; round < rounds; ++round) {
        const auto begin = stopwatch::now();
        {
            std::vector<std::jthread> running;
            for (unsigned thread = 0; thread < threads; ++thread) {
                running.emplace_back([buffer] {
                    for (int index = 0; index < tracesARound; ++index) {
                        trace_wobu_write_all(buffer, 0x266E6775, " %s,%d,%d", 42, 0, "kest_wobuClose", 1, index);
                    }
                });
            }
        }
        best = std::max(best, threads * tracesARound / std::chrono::duration<double>(stopwatch::now() - begin).count());
    }
    return best;
}

} // namespace

int main()
{
    const kest::bench::scratchFolder scratch;
    const std::filesystem::path& folder = scratch.path();
    json bytes = json::array();
    json chips = json::array();
    json threads = json::array();
    makeMachine(folder / "few", 4);
    for (const unsigned length : {16U, 256U, 1024U, 4096U, 16384U, 65536U}) {
        bytes.push_back({length, inChild([&] { return usOfRead(folder / "few", length); })});
    }
    for (const int count : {4, 64, 512, 2048, 4096}) {
        const std::filesystem::path machine = folder / std::to_string(count);
        makeMachine(machine, count);
        chips.push_back({count, inChild([&] { return usOfRead(machine, 256); })});
    }
    for (const unsigned count : {1U, 2U, 4U, 8U}) {
        threads.push_back({count, inChild([&] { return tracesPerSecond(count); })});
    }
    const json told{
        {"curve.read.us_by_bytes", bytes}, {"curve.read.us_by_chips", chips}, {"curve.trace.per_s", threads}};
    std::printf("%s\n", told.dump().c_str());
    return 0;
}
