/// What KEST_dpRead adds to its own bus transactions: the whole call on a simulated machine, over the write and the read
/// that it makes, done by bare layer calls on a device that is open already. Prints one JSON object.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <time.h>

#include "bench/scratchfolder.h"
#include "kest/dataport.h"
#include "platform/errl.h"
#include "platform/host/configuration/configuration.h"
#include "platform/mern.h"

namespace
{

constexpr int calls = 500;
// the best round counts, and both kinds take turns: the machine may have other work
constexpr int rounds = 25;
constexpr char expander[] = "sim:planar,L,9555,40";
constexpr std::uint16_t expanderAddress = 0x40;
constexpr unsigned int valueBytes = 2;

[[noreturn]] void fail(const char* what) { throw std::runtime_error(what); }

/// A machine folder with a kest.toml, which this process uses.
class scratchMachine
{
public:
    scratchMachine()
    {
        std::ofstream(m_folder.path() / "kest.toml") << "state = \"state\"\n[machine]\nfolder = \".\"\n";
        std::ofstream(m_folder.path() / "machine.toml")
            << "[[bus]]\nname = \"planar\"\n"
               "[[chip]]\nbus = \"planar\"\ntype = \"24C256\"\naddress = 0xA0\nimage = \"main.bin\"\n"
               "[[chip]]\nbus = \"planar\"\ntype = \"LM75\"\naddress = 0x90\n"
               "[[chip]]\nbus = \"planar\"\ntype = \"PCA9552\"\naddress = 0xC0\n"
               "[[chip]]\nbus = \"planar\"\ntype = \"PCA9555\"\naddress = 0x40\n";
        if (!kest::host::useConfigurationFile(m_folder.path() / "kest.toml")) {
            fail("the configuration was read too early");
        }
    }

private:
    kest::bench::scratchFolder m_folder;
};

void readByLibrary()
{
    unsigned int value = 0;
    if (kest::KEST_dpRead(expander, 0xFFFF, &value, nullptr, 0) != nullptr || value != 0xFFFF) {
        fail("the read failed");
    }
}

mern_t openExpander()
{
    const MernNode local;
    mern_t handle = mern_iic_open(local, "sim:planar", MERN_OPEN_READ_WRITE_SYNC);
    mern_iic_block block{};
    block.speedKhz = 400;
    block.address = expanderAddress;
    block.timeoutMs = 20000;
    block.busyWaitMs = 1000;
    if (mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_BLOCK, &block, sizeof block) != 0) {
        fail("the expander can't be configured");
    }
    return handle;
}

/// The number of the input register goes out, two bytes come in.
void readBare(mern_t& handle)
{
    const std::uint8_t inputs = 0;
    std::uint8_t value[valueBytes]{};
    if (mern_iic_write(handle, &inputs, 1) != 1 || mern_iic_read(handle, value, valueBytes) != int{valueBytes}) {
        fail("the bare transactions failed");
    }
}

double usOfProcess()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

/// Processor time of one call.
template <class Call>
double usOfCall(const Call& call)
{
    const double before = usOfProcess();
    for (int index = 0; index < calls; ++index) {
        call();
    }
    return (usOfProcess() - before) / calls;
}

double usOfBareCalls()
{
    mern_t handle = openExpander();
    const double us = usOfCall([&handle] { readBare(handle); });
    mern_iic_close(handle);
    return us;
}

void measure()
{
    const scratchMachine machine;
    double library = 1e12, bare = 1e12;
    for (int round = 0; round < rounds; ++round) {
        // nobody else has the machine open then: each call makes it ready anew
        library = std::min(library, usOfCall(readByLibrary));
        bare = std::min(bare, usOfBareCalls());
    }
    std::printf("{\"dataport.read_ratio\": %.3f, \"dataport.read_us\": %.3f, \"dataport.bare_us\": %.3f}\n",
                library / bare, library, bare);
}

} // namespace

int main()
{
    try {
        measure();
        return 0;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "dataport_bench: %s\n", problem.what());
        return 1;
    }
}
