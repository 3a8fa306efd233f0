/// What the size of a simulated machine costs those who use one chip of it: processor time on a machine of 64 buses with
/// 3,840 chips against one of 4 chips, and that of opening against that of a transaction. Prints one JSON object.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "bench/scratchfolder.h"
#include "kest/seeprom.h"
#include "platform/errl.h"
#include "platform/host/configuration/configuration.h"
#include "platform/tavo.h"
#include "sim/machine.h"

extern char** environ;

namespace
{

constexpr int buses = 64, portsOfHub = 8, chipsOfPort = 6;
constexpr int reads = 200, opens = 500, starts = 4;
// the best round counts: the machine may have other work
constexpr int rounds = 15, startRounds = 5;
constexpr unsigned int readBytes = 256;
constexpr char memoryChip[] = "sim:planar,L,2C0256,A0";
constexpr char sensorChip[] = "sim:planar,L,75,90";

std::string chip(const std::string& bus, const char* type, int address, const std::string& more = {})
{
    return "[[chip]]\nbus = \"" + bus + "\"\ntype = \"" + type + "\"\naddress = " + std::to_string(address) + "\n" +
           more;
}

/// The four chips that every bus has.
std::string fewChips(const std::string& bus)
{
    return chip(bus, "24C256", 0xA0, "image = \"" + bus + ".bin\"\n") + chip(bus, "LM75", 0x90) +
           chip(bus, "PCA9552", 0xC0) + chip(bus, "PCA9555", 0x40);
}

/// 56 more: expanders, and a hub with memory chips behind it.
std::string manyChips(const std::string& bus)
{
    std::string text = chip(bus, "HUB922", 0x80);
    for (int index = 1; index < 8; ++index) {
        text += chip(bus, "PCA9555", 0x40 + 2 * index);
    }
    for (int place = 0; place < portsOfHub * chipsOfPort; ++place) {
        text += chip(bus, "24C02", 0xA2 + 2 * (place % chipsOfPort),
                     "hub = 0x80\nport = " + std::to_string(place / chipsOfPort) + "\nimage = \"" + bus + "-" +
                         std::to_string(place) + ".bin\"\n");
    }
    return text;
}

/// Writes a machine whose first bus is "planar", and makes its images and its state.
std::filesystem::path makeMachine(const std::filesystem::path& folder, bool big)
{
    std::string busText, chipText;
    for (int index = 0; index < (big ? buses : 1); ++index) {
        const std::string bus = index == 0 ? "planar" : "bus" + std::to_string(index);
        busText += "[[bus]]\nname = \"" + bus + "\"\n";
        chipText += fewChips(bus) + (big ? manyChips(bus) : "");
    }
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "kest.toml") << "state = \"state\"\n[machine]\nfolder = \".\"\n";
    std::ofstream(folder / "machine.toml") << busText << chipText;
    kest::sim::openMachine(folder, false)->powerCycle();
    return folder;
}

double usOfProcess()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

double usOfChildren()
{
    rusage used{};
    getrusage(RUSAGE_CHILDREN, &used);
    return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1e6 +
           static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec);
}

/// Processor time of one call, in the best round.
double usOfCall(const std::function<void()>& call, int calls)
{
    double best = 1e12;
    for (int round = 0; round < rounds; ++round) {
        const double before = usOfProcess();
        for (int index = 0; index < calls; ++index) {
            call();
        }
        best = std::min(best, (usOfProcess() - before) / calls);
    }
    return best;
}

/// A process has one configuration, so each measurement of a machine is a child's.
double measuredByAChild(const std::function<double()>& measure)
{
    int result[2];
    if (pipe(result) != 0) {
        throw std::runtime_error("no pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        const double us = measure();
        _exit(write(result[1], &us, sizeof us) == static_cast<ssize_t>(sizeof us) ? 0 : 1);
    }
    close(result[1]);
    double us = 0;
    const bool got = read(result[0], &us, sizeof us) == static_cast<ssize_t>(sizeof us);
    close(result[0]);
    int status = -1;
    waitpid(child, &status, 0);
    if (!got || status != 0) {
        throw std::runtime_error("a measurement failed");
    }
    return us;
}

void readByLibrary(const tavo_deviceaddress& address)
{
    // 4: hardware
    const kest_attributeValue attributes[KEST_ATTR_COUNT] = {400, 1, 15, 4, 2, 1};
    unsigned int length = readBytes;
    unsigned char* data = nullptr;
    if (KEST_seepromRead(address, nullptr, 0, &length, &data, attributes) != nullptr || length != readBytes) {
        throw std::runtime_error("the read failed");
    }
    void* buffer = data;
    tavo_util_free(&buffer);
}

double usOfRead(const std::filesystem::path& machine)
{
    return measuredByAChild([&machine] {
        if (!kest::host::useConfigurationFile(machine / "kest.toml")) {
            throw std::runtime_error("the configuration was read too early");
        }
        tavo_deviceaddress address{17, {}};
        std::copy_n(memoryChip, sizeof memoryChip, address.location);
        return usOfCall([&address] { readByLibrary(address); }, reads);
    });
}

/// Processor time of `kestctl thermal read`, in the best round.
double usOfStart(const std::filesystem::path& machine)
{
    const std::string program = std::string(KEST_BIN_DIR) + "/kestctl";
    const std::string configuration = machine / "kest.toml";
    const char* const arguments[] = {program.c_str(), "--config", configuration.c_str(), "thermal", "read", sensorChip,
                                     "--json",        nullptr};
    double best = 1e12;
    for (int round = 0; round < startRounds; ++round) {
        const double before = usOfChildren();
        for (int index = 0; index < starts; ++index) {
            pid_t child = 0;
            posix_spawn_file_actions_t files;
            posix_spawn_file_actions_init(&files);
            posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
            int status = posix_spawn(&child, program.c_str(), &files, nullptr, const_cast<char**>(arguments), environ);
            posix_spawn_file_actions_destroy(&files);
            if (status != 0 || waitpid(child, &status, 0) != child || status != 0) {
                throw std::runtime_error("kestctl thermal read failed");
            }
        }
        best = std::min(best, (usOfChildren() - before) / starts);
    }
    return best;
}

void openAndClose(const std::filesystem::path& machine)
{
    if (kest::sim::openMachine(machine, false)->findBus("planar", "") == nullptr) {
        throw std::runtime_error("no bus");
    }
}

void readOneByte(kest::sim::bus& wires)
{
    std::uint8_t byte = 0;
    kest::sim::segment part{0xA0, kest::sim::direction::read, {&byte, 1}, false};
    if (wires.transfer({&part, 1}, 0).end != kest::sim::outcome::done) {
        throw std::runtime_error("the transaction failed");
    }
}

double usOfTransaction(const std::filesystem::path& machine)
{
    const auto wires = kest::sim::openMachine(machine, false)->findBus("planar", "");
    return usOfCall([&wires] { readOneByte(*wires); }, opens);
}

} // namespace

int main()
{
    try {
        const kest::bench::scratchFolder folder;
        const auto small = makeMachine(folder.path() / "small", false);
        const auto big = makeMachine(folder.path() / "big", true);
        const double readSmall = usOfRead(small), readBig = usOfRead(big);
        const double startSmall = usOfStart(small), startBig = usOfStart(big);
        const double opening = usOfCall([&small] { openAndClose(small); }, opens);
        const double transaction = usOfTransaction(small);
        const double openingBig = usOfCall([&big] { openAndClose(big); }, 20);
        std::printf("{\"sim.read256_big_over_small\": %.3f, \"sim.read256_us\": %.2f, \"sim.start_big_ratio\": %.3f, "
                    "\"sim.start_ms\": %.3f, \"sim.open_close_ratio\": %.3f, \"sim.open_close_big_us\": %.2f}\n",
                    readBig / readSmall, readSmall, startBig / startSmall, startSmall / 1e3, opening / transaction,
                    openingBig);
        return 0;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "sim_bench: %s\n", problem.what());
        return 1;
    }
}
