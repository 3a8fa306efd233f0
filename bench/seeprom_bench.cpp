/// What the library adds to a hardware read of 256 bytes: the time of the whole call against that of the bare platform
/// calls that it makes, in reads of the clock, and its allocations besides the caller's buffer. The platform serves everything from memory.
/// Prints one JSON object.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "kest/seeprom.h"
#include "platform/errl.h"
#include "platform/mern.h"
#include "platform/tavo.h"

namespace
{

constexpr int reads = 20'000;
// the best round counts: the machine may have other work
constexpr int rounds = 25;
constexpr unsigned int bytes = 256;
constexpr unsigned int offset = 0x100;
constexpr char device[] = "sim:planar,L,2C0256,A0";

using stopwatch = std::chrono::steady_clock;

unsigned long allocations = 0;
stopwatch::time_point latest;

double usPerCall(stopwatch::duration taken) { return std::chrono::duration<double, std::micro>(taken).count() / reads; }

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "seeprom_bench: %s\n", what);
    std::exit(1);
}

void readByLibrary(const tavo_deviceaddress& address)
{
    // 4: hardware
    const kest_attributeValue attributes[KEST_ATTR_COUNT] = {400, 1, 15, 4, 2, 1};
    unsigned int length = bytes;
    unsigned char* data = nullptr;
    if (KEST_seepromRead(address, nullptr, offset, &length, &data, attributes) != nullptr || length != bytes) {
        fail("the read failed");
    }
    void* buffer = data;
    tavo_util_free(&buffer);
}

/// The same platform calls without the traces, with all arguments known beforehand.
void readBare()
{
    mern_iic_block block{};
    std::uint32_t speed = 400, dma = 2;
    void* buffer = tavo_malloc(bytes);
    MernInitialize(MERN_INITIALIZE_OPTIONS);
    MernNode node;
    mern_t handle = mern_iic_open(node, "sim:planar", MERN_OPEN_READ_WRITE_SYNC);
    mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_BLOCK, &block, sizeof block);
    mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_SPEED, &speed, sizeof speed);
    mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_DMA_OPTION, &dma, sizeof dma);
    mern_iic_seek(handle, offset, 0);
    if (mern_iic_read(handle, buffer, bytes) != static_cast<int>(bytes)) {
        fail("the bare read failed");
    }
    mern_iic_close(handle);
    tavo_util_free(&buffer);
}

template <class Read>
double measure(const Read& read)
{
    const auto begin = stopwatch::now();
    for (int index = 0; index < reads; ++index) {
        read();
    }
    return usPerCall(stopwatch::now() - begin);
}

void* counted(std::size_t size)
{
    ++allocations;
    return std::malloc(size);
}

} // namespace

void* operator new(std::size_t size) { return counted(size); }
void* operator new[](std::size_t size) { return counted(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return counted(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return counted(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

int main()
{
    tavo_deviceaddress address{17, {}};
    std::copy_n(device, sizeof device, address.location);
    readByLibrary(address);
    allocations = 0;
    readByLibrary(address);
    const unsigned long allocationsOfOne = allocations;

    double library = 1e9, bare = 1e9, clock = 1e9;
    for (int round = 0; round < rounds; ++round) {
        library = std::min(library, measure([&address] { readByLibrary(address); }));
        bare = std::min(bare, measure(readBare));
        clock = std::min(clock, measure([] { latest = stopwatch::now(); }));
    }
    std::printf("{\"seeprom.read256_clocks\": %.1f, \"seeprom.read256_overhead_us\": %.3f, "
                "\"seeprom.read256_bare_us\": %.3f, \"seeprom.read256_allocations\": %lu}\n",
                (library - bare) / clock, library - bare, bare, allocationsOfOne);
    return 0;
}
