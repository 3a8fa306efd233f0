#include "platform/check/run.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kest::check
{
namespace
{

std::string hexOf(std::span<const std::uint8_t> data)
{
    constexpr std::size_t shown = 16;
    std::string text = std::to_string(data.size()) + " bytes";
    for (std::size_t at = 0; at < std::min(data.size(), shown); ++at) {
        constexpr const char* digits = "0123456789abcdef";
        text += {at == 0 ? ':' : ' ', digits[data[at] >> 4], digits[data[at] & 0xF]};
    }
    return text + (data.size() > shown ? " ..." : "");
}

} // namespace

bool run::same(const char* what, long long expected, long long found)
{
    return same(what, std::to_string(expected), std::to_string(found));
}

bool run::same(const char* what, std::span<const std::uint8_t> expected, std::span<const std::uint8_t> found)
{
    return std::ranges::equal(expected, found) || same(what, hexOf(expected), hexOf(found) + " (differs)");
}

bool run::same(const char* what, const std::string& expected, const std::string& found)
{
    if (expected != found && finding.empty()) {
        finding = std::string(what) + ": expected " + expected + ", found " + found;
    }
    return expected == found;
}

bool run::holds(const char* what, bool holds)
{
    if (!holds && finding.empty()) {
        finding = std::string("not so: ") + what;
    }
    return holds;
}

bool run::fails(const char* call, int expectedErrno, int result, int expectedResult)
{
    const int error = errno;
    return same((std::string("result of ") + call).c_str(), expectedResult, result) &&
           same((std::string("errno of ") + call).c_str(), std::strerror(expectedErrno), std::strerror(error));
}

bool run::has(const char* what, bool there)
{
    if (!there && lacks.empty()) {
        lacks = what;
    }
    return there;
}

ErrlEntry* makeEntry(std::uint16_t reason, std::uint32_t word1)
{
    constexpr std::uint16_t component = 0x1300;
    constexpr std::uint8_t module = 0x21;
    return new ErrlEntry(component, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0, module,
                         SERVICE_CODE_KEST, reason, word1, 0x22222222, 0x33333333, 0xFFFFFFFF,
                         EPUB_SUBSYSTEM_IIC_DEVICE, SRCI_TERM_NONE);
}

std::vector<std::uint32_t> wordsOf(const SrciSrc* src)
{
    unsigned int count = 0;
    const std::uint32_t* const words = src != nullptr ? src->getHexData(count) : nullptr;
    return words != nullptr ? std::vector<std::uint32_t>(words, words + count) : std::vector<std::uint32_t>{};
}

bool openDevice::isInvalid(const mern_t& handle)
{
    return std::equal(handle.words, handle.words + 5, MERN_INVALID.words);
}

openDevice::openDevice(const char* path)
    : handle(mern_iic_open(MernNode{}, path, MERN_OPEN_READ_WRITE_SYNC)), m_valid(!isInvalid(handle))
{
}

openDevice::~openDevice()
{
    if (m_valid) {
        close();
    }
}

int openDevice::close()
{
    m_valid = false;
    return mern_iic_close(handle);
}

int openDevice::target(std::uint32_t address)
{
    return mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_TARGET, &address, sizeof address);
}

bytes openDevice::read(unsigned int size)
{
    // what a platform leaves alone must not look like what it should have written
    bytes data(size, 0xA5);
    const int moved = mern_iic_read(handle, data.data(), size);
    data.resize(moved < 0 ? 0 : std::min(static_cast<unsigned int>(moved), size));
    return data;
}

int openDevice::write(std::span<const std::uint8_t> data)
{
    return mern_iic_write(handle, data.data(), static_cast<unsigned int>(data.size()));
}

bool prepareMemory(run& run, openDevice& device, bool address)
{
    const kest_checkedMemory& memory = run.port.memory;
    mern_iic_block block{};
    block.speedKhz = 400;
    block.address = address ? memory.address : std::uint16_t{0};
    block.offsetLength = memory.offsetLength;
    block.timeoutMs = 5000;
    block.writeCycleMs = 15;
    block.pageSize = memory.pageSize;
    block.busyWaitMs = 1000;
    return run.holds("the memory's path can be opened", device.valid()) &&
           run.same("result of setting the block", 0,
                    mern_iic_config(device.handle, MERN_CONFIG_SET, WOBU_IIC_BLOCK, &block, sizeof block)) &&
           (address || run.same("result of setting the target", 0, device.target(memory.address)));
}

bytes pattern(std::size_t count, std::uint8_t seed)
{
    bytes made(count);
    for (std::size_t at = 0; at < count; ++at) {
        made[at] = static_cast<std::uint8_t>(seed + at * 7);
    }
    return made;
}

memoryUse::memoryUse(run& run, bool address)
    : made(run), memory(run.port.memory), device(memory.path != nullptr ? memory.path : ""),
      ready(run.has("SEEPROM", memory.path != nullptr) &&
            run.holds("the port's memory has four pages of 8 bytes or more",
                      memory.pageSize >= 8 && memory.size / 4 >= memory.pageSize) &&
            prepareMemory(run, device, address))
{
}

memoryUse::~memoryUse()
{
    if (!m_before.empty() && prepareMemory(made, device)) {
        device.seek(0);
        made.same("bytes put back", static_cast<long long>(m_before.size()), device.write(m_before));
        made.same("bytes after they were put back", m_before, readAt(0, static_cast<unsigned int>(m_before.size())));
    }
}

bool memoryUse::fill()
{
    const std::size_t size = 4 * std::size_t{memory.pageSize};
    m_before = readAt(0, static_cast<unsigned int>(size));
    if (!made.holds("the memory's first four pages can be read", m_before.size() == size)) {
        m_before.clear();
        return false;
    }
    contents = pattern(size, static_cast<std::uint8_t>(m_before[0] + 1));
    device.seek(0);
    const bool written = made.same("bytes written", static_cast<long long>(size), device.write(contents));
    device.seek(0);
    return written;
}

bytes memoryUse::readAt(std::uint32_t position, unsigned int size)
{
    device.seek(position);
    return device.read(size);
}

} // namespace kest::check
