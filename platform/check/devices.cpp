/// Checks of open devices: paths, handles, configuration items.
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/check/run.h"

namespace kest::check
{
namespace
{

bool hasMemory(run& run) { return run.has("SEEPROM", run.port.memory.path != nullptr); }

int setBlock(openDevice& device, mern_iic_block block)
{
    return mern_iic_config(device.handle, MERN_CONFIG_SET, WOBU_IIC_BLOCK, &block, sizeof block);
}

int getWord(openDevice& device, wobu_iic_cfg_t item, std::uint32_t& word)
{
    return mern_iic_config(device.handle, MERN_CONFIG_READ, item, &word, sizeof word);
}

void initialised(run& run)
{
    run.same("result of MernInitialize()", 0, MernInitialize(MERN_INITIALIZE_OPTIONS));
    run.same("result of a second MernInitialize()", 0, MernInitialize(MERN_INITIALIZE_OPTIONS));
}

void opens(run& run)
{
    if (hasMemory(run)) {
        openDevice device(run.port.memory.path);
        run.holds("an open device differs from MERN_INVALID in its first five words", device.valid());
        run.same("result of mern_iic_close()", 0, device.close());
    }
}

void missingBus(run& run)
{
    if (!run.has("path of no bus", run.port.missingPath != nullptr)) {
        return;
    }
    for (const char* path : {run.port.missingPath, "", "no path"}) {
        errno = 0;
        const openDevice device(path);
        run.fails(("opening '" + std::string(path) + "'").c_str(), ENOENT, device.valid() ? 0 : -1);
    }
}

void missingNode(run& run)
{
    if (!run.has("node that is not mapped", run.port.missingNode != MERN_NODE_LOCAL) || !hasMemory(run)) {
        return;
    }
    MernNode node;
    node.number = run.port.missingNode;
    const MernNode copy(node);
    run.same("node of a copied MernNode", node.number, copy.number);
    errno = 0;
    mern_t handle = mern_iic_open(node, run.port.memory.path, MERN_OPEN_READ_WRITE_SYNC);
    run.fails("opening on a node that is not mapped", ENODEV, openDevice::isInvalid(handle) ? -1 : 0);
}

void closedHandle(run& run)
{
    if (!hasMemory(run)) {
        return;
    }
    openDevice device(run.port.memory.path);
    prepareMemory(run, device);
    mern_t closed = device.handle;
    device.close();
    const openDevice another(run.port.memory.path); // it may take the place of the closed one
    std::uint8_t byte = 0;
    errno = 0;
    run.fails("a read of a closed device", EBADF, mern_iic_read(closed, &byte, 1), 0);
    run.fails("a write to a closed device", EBADF, mern_iic_write(closed, &byte, 1), 0);
    run.fails("a seek of a closed device", EBADF, mern_iic_seek(closed, 0, 0));
    run.fails("a second close", EBADF, mern_iic_close(closed));
    mern_t invalid = MERN_INVALID;
    run.fails("a close of MERN_INVALID", EBADF, mern_iic_close(invalid));
}

void manyOpenings(run& run)
{
    if (!hasMemory(run)) {
        return;
    }
    for (int number = 0; number < 300; ++number) {
        openDevice device(run.port.memory.path);
        if (!run.holds("opening works 300 times, one after the other", device.valid())) {
            return;
        }
        const openDevice failed("no path");
        device.close();
    }
}

void ticket(run& run)
{
    memoryUse check(run);
    openDevice other(check.memory.path != nullptr ? check.memory.path : "");
    if (!check.ready || !check.fill() || !prepareMemory(run, other)) {
        return;
    }
    mern_t copy = check.device.handle;
    mern_iic_seek(copy, 2, 0);
    run.same("bytes behind a seek of the handle's copy", std::span(check.contents).subspan(2, 2), check.device.read(2));
    run.same("bytes of another opening, which keeps its position", std::span(check.contents).first(2), other.read(2));
}

void words(run& run)
{
    if (!hasMemory(run)) {
        return;
    }
    openDevice device(run.port.memory.path);
    for (const wobu_iic_cfg_t item : {WOBU_IIC_SPEED, WOBU_IIC_DMA_OPTION, WOBU_IIC_TARGET}) {
        std::uint32_t set = item == WOBU_IIC_TARGET ? run.port.memory.address : 100;
        std::uint32_t found = 0;
        run.same("result of setting a word", 0,
                 mern_iic_config(device.handle, MERN_CONFIG_SET, item, &set, sizeof set));
        run.same("result of reading it", 0, getWord(device, item, found));
        run.same(("item " + std::to_string(item)).c_str(), set, found);
    }
    run.fails("an odd target", EINVAL, device.target(0xA1));
    run.fails("target 0", EINVAL, device.target(0));
}

void blockItem(run& run)
{
    if (!hasMemory(run)) {
        return;
    }
    openDevice device(run.port.memory.path);
    prepareMemory(run, device);
    const mern_iic_block block{400, run.port.memory.address, 2, 0, 0, 1234, 0, 15, 0, 64, 0, 0xFFFB0001, 0, 500};
    mern_iic_block found{};
    run.same("result of setting a block", 0, setBlock(device, block));
    run.same("result of reading it", 0,
             mern_iic_config(device.handle, MERN_CONFIG_READ, WOBU_IIC_BLOCK, &found, sizeof found));
    run.holds("the block is the one that was set", std::memcmp(&block, &found, sizeof block) == 0);
    run.fails("another target than the block's", ENOSYS, device.target(run.port.memory.address ^ 2U));
    mern_iic_block wrong = block;
    wrong.offsetLength = 5;
    run.fails("an offset of five bytes", EINVAL, setBlock(device, wrong));
    wrong = block;
    wrong.pageSize = 48;
    run.fails("a page of 48 bytes", EINVAL, setBlock(device, wrong));
    wrong = block;
    wrong.address = 0xA1;
    run.fails("an odd address", EINVAL, setBlock(device, wrong));
    mern_iic_config(device.handle, MERN_CONFIG_READ, WOBU_IIC_BLOCK, &found, sizeof found);
    run.holds("a refused block changes nothing", std::memcmp(&block, &found, sizeof block) == 0);
}

void wrongItems(run& run)
{
    if (!hasMemory(run)) {
        return;
    }
    openDevice device(run.port.memory.path);
    std::uint32_t word = run.port.memory.address;
    mern_iic_block block{};
    mern_t& handle = device.handle;
    run.fails("item 99", EINVAL,
              mern_iic_config(handle, MERN_CONFIG_SET, static_cast<wobu_iic_cfg_t>(99), &word, sizeof word));
    run.fails("a target of two bytes", EINVAL, mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_TARGET, &word, 2));
    run.fails("a block of 40 bytes", EINVAL, mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_BLOCK, &block, 40));
    run.fails("direction 3", EINVAL, mern_iic_config(handle, 3, WOBU_IIC_TARGET, &word, sizeof word));
    run.fails("setting the detect state", EINVAL,
              mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_DETECT_STATE, &word, sizeof word));
    run.fails("no value", EFAULT, mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_TARGET, nullptr, sizeof word));
}

void detects(run& run)
{
    if (!hasMemory(run)) {
        return;
    }
    openDevice device(run.port.memory.path);
    std::uint32_t state = 99;
    errno = 0;
    run.fails("the detect state without a target", EINVAL, getWord(device, WOBU_IIC_DETECT_STATE, state));
    device.target(run.port.memory.address);
    run.same("result of reading the detect state", 0, getWord(device, WOBU_IIC_DETECT_STATE, state));
    run.same("detect state of the memory", MERN_DETECT_PRESENT, state);
    if (run.has("address where nothing answers", run.port.silentAddress != 0)) {
        device.target(run.port.silentAddress);
        run.same("result where nothing answers", 0, getWord(device, WOBU_IIC_DETECT_STATE, state));
        run.same("detect state where nothing answers", MERN_DETECT_ABSENT, state);
    }
}

void resets(run& run)
{
    memoryUse check(run);
    if (!check.ready || !check.fill()) {
        return;
    }
    check.device.seek(2);
    errno = 0;
    run.fails("reset 2", EINVAL, mern_iic_reset(check.device.handle, 2));
    run.same("result of a bus reset", 0, mern_iic_reset(check.device.handle, MERN_RESET_BUS));
    run.same("bytes after the reset, at the same position of the same target", std::span(check.contents).subspan(2, 4),
             check.device.read(4));
}

constexpr std::array checks{
    check{"devices: the layer can be made ready any number of times", initialised},
    check{"devices: a bus is opened and closed", opens},
    check{"devices: a path of no bus is ENOENT", missingBus},
    check{"devices: a node that is not mapped is ENODEV", missingNode},
    check{"devices: a closed handle is EBADF", closedHandle},
    check{"devices: openings leave nothing behind, also failed ones", manyOpenings},
    check{"devices: a handle's copy is the same device, another opening is not", ticket},
    check{"devices: speed, target and DMA option are set and read", words},
    check{"devices: a block is kept whole, a wrong one refused", blockItem},
    check{"devices: wrong items, sizes and directions are EINVAL", wrongItems},
    check{"devices: the detect state tells a device from none", detects},
    check{"devices: a bus reset leaves position and target alone", resets},
};

} // namespace

std::span<const check> deviceChecks() { return checks; }

} // namespace kest::check
