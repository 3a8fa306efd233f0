/// System calls of the library's calls on a kernel's bus, counted by ptrace. The bus's node is /dev/null, and the answers
/// of its ioctls are replaced. Prints one JSON object. Where a process may not be traced, it has the reason in place of
/// each number.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "bench/scratchfolder.h"
#include "kest/dataport.h"
#include "kest/seeprom.h"
#include "platform/errl.h"
#include "platform/host/configuration/configuration.h"
#include "platform/tavo.h"
#include "tests/tracedcalls.h"

namespace
{

using kest::test::TracedCalls;

constexpr char memoryChip[] = "/dev/i2c-0,0,2C0256,A0";
constexpr char expander[] = "/dev/i2c-0,0,9555,40";
constexpr unsigned int readBytes = 256;

/// Nothing may be traced here.
class refused : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

bool readMemory()
{
    // 4: hardware
    const kest::kest_attributeValue attributes[kest::KEST_ATTR_COUNT] = {400, 1, 15, 4, 2, 1};
    tavo_deviceaddress address{17, {}};
    std::copy_n(memoryChip, sizeof memoryChip, address.location);
    unsigned int length = readBytes;
    unsigned char* data = nullptr;
    const bool read = kest::KEST_seepromRead(address, nullptr, 0, &length, &data, attributes) == nullptr;
    const bool good = read && length == readBytes && data[readBytes - 1] == readBytes - 1;
    void* buffer = data;
    tavo_util_free(&buffer);
    return good;
}

bool readPins()
{
    unsigned int value = 0;
    return kest::KEST_dpRead(expander, 0xFFFF, &value, nullptr, 0) == nullptr && value == 0x0100;
}

std::size_t callsOf(bool (*work)())
{
    const TracedCalls traced = kest::test::traceCalls(work);
    if (!traced.refusal.empty()) {
        throw refused(traced.refusal);
    }
    if (!traced.worked) {
        throw std::logic_error("the work failed");
    }
    return traced.numbers.size();
}

void measure()
{
    const kest::bench::scratchFolder folder;
    if (!kest::host::useConfigurationFile(kest::test::makeTracedAdapter(folder.path()))) {
        throw std::logic_error("the configuration was read too early");
    }
    const std::size_t memoryCalls = callsOf(readMemory);
    const std::size_t portCalls = callsOf(readPins);
    std::printf("{\"linux.read256_syscalls\": %zu, \"linux.dpread_syscalls\": %zu}\n", memoryCalls, portCalls);
}

} // namespace

int main()
{
    try {
        measure();
        return 0;
    } catch (const refused& reason) {
        std::fprintf(stderr, "linux_bench: system calls not counted: %s\n", reason.what());
        std::puts("{\"linux.read256_syscalls\": \"tracing is refused here\", "
                  "\"linux.dpread_syscalls\": \"tracing is refused here\"}");
        return 0;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "linux_bench: %s\n", problem.what());
        return 1;
    }
}
