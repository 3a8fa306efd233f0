/// System calls of the library's calls on a kernel's bus, counted by ptrace. The bus's node is /dev/null, and the answers
/// of its ioctls are replaced. Prints one JSON object; an empty one, and the reason on standard error, where a process
/// may not be traced.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>

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
        throw std::runtime_error(traced.refusal);
    }
    if (!traced.worked) {
        throw std::logic_error("the work failed");
    }
    return traced.numbers.size();
}

/// A folder of its own, which the destructor removes.
class scratchFolder
{
public:
    scratchFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "kest-bench-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::logic_error("no scratch folder");
        }
        m_path = name;
    }
    scratchFolder(const scratchFolder&) = delete;
    scratchFolder& operator=(const scratchFolder&) = delete;
    ~scratchFolder() { std::filesystem::remove_all(m_path); }
    [[nodiscard]] const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

void measure()
{
    const scratchFolder folder;
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
    } catch (const std::runtime_error& refusal) {
        std::fprintf(stderr, "linux_bench: system calls not counted: %s\n", refusal.what());
        std::puts("{}");
        return 0;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "linux_bench: %s\n", problem.what());
        return 1;
    }
}
