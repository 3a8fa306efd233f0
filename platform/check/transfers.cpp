/// Checks of reads and writes, positions, and first-failure data.
#include <algorithm>
#include <array>
#include <cerrno>
#include <thread>

#include "platform/check/run.h"
#include "platform/tavo.h"

namespace kest::check
{
namespace
{

void positions(run& run)
{
    memoryUse check(run);
    if (!check.ready || !check.fill()) {
        return;
    }
    run.same("result of a seek to 5, which is no position", 0, check.device.seek(5));
    run.same("bytes at position 5", std::span(check.contents).subspan(5, 4), check.device.read(4));
    run.same("bytes after them", std::span(check.contents).subspan(9, 4), check.device.read(4));
    run.fails("a seek by whence 1", EINVAL, mern_iic_seek(check.device.handle, 0, 1));
    run.same("bytes after a refused seek", std::span(check.contents).subspan(13, 4), check.device.read(4));
}

void nothingToMove(run& run)
{
    memoryUse check(run);
    if (!check.ready || !check.fill()) {
        return;
    }
    check.device.seek(3);
    run.same("result of a read of size 0", 0, mern_iic_read(check.device.handle, nullptr, 0));
    run.same("result of a write of size 0", 0, mern_iic_write(check.device.handle, nullptr, 0));
    errno = 0;
    run.fails("a read into nothing", EFAULT, mern_iic_read(check.device.handle, nullptr, 4), 0);
    run.fails("a write of nothing", EFAULT, mern_iic_write(check.device.handle, nullptr, 4), 0);
    run.same("bytes at the same position", std::span(check.contents).subspan(3, 4), check.device.read(4));
}

void noTarget(run& run)
{
    if (!run.has("SEEPROM", run.port.memory.path != nullptr)) {
        return;
    }
    openDevice device(run.port.memory.path);
    std::uint8_t byte = 0;
    errno = 0;
    run.fails("a read without a target", EINVAL, mern_iic_read(device.handle, &byte, 1), 0);
    run.fails("a write without a target", EINVAL, mern_iic_write(device.handle, &byte, 1), 0);
}

void silence(run& run)
{
    memoryUse check(run, false);
    if (!check.ready || !run.has("address where nothing answers", run.port.silentAddress != 0) || !check.fill()) {
        return;
    }
    check.device.seek(7);
    check.device.target(run.port.silentAddress);
    bytes data(4);
    errno = 0;
    run.fails("a read where nothing answers", ENXIO, mern_iic_read(check.device.handle, data.data(), 4), 0);
    run.fails("a write where nothing answers", ENXIO, mern_iic_write(check.device.handle, data.data(), 4), 0);
    check.device.target(run.port.memory.address);
    run.same("bytes at the position, which failures leave alone", std::span(check.contents).subspan(7, 4),
             check.device.read(4));
}

void writesPages(run& run)
{
    memoryUse check(run);
    if (!check.ready || !check.fill()) {
        return;
    }
    // from the middle of the first page to the middle of the third
    const std::uint32_t page = check.memory.pageSize;
    const bytes data = pattern(2 * page, static_cast<std::uint8_t>(check.contents[page / 2] + 1));
    check.device.seek(page / 2);
    run.same("bytes written", static_cast<long long>(data.size()), check.device.write(data));
    const bytes behind = check.device.read(4);
    run.same("bytes after them, at the position that moved on",
             std::span(check.contents).subspan(page / 2 + 2 * page, 4), behind);
    run.same("bytes read back", data, check.readAt(page / 2, 2 * page));
    run.same("bytes before the write", std::span(check.contents).first(page / 2), check.readAt(0, page / 2));
    run.same("bytes behind the write", std::span(check.contents).last(4 * page - (page / 2 + 2 * page)),
             check.readAt(page / 2 + 2 * page, 4 * page - (page / 2 + 2 * page)));
}

void writesBeyond(run& run)
{
    memoryUse check(run);
    if (!check.ready || !check.fill()) {
        return;
    }
    const std::uint32_t range = 1U << (8 * check.memory.offsetLength);
    const bytes data = pattern(4, static_cast<std::uint8_t>(check.contents[0] + 1));
    check.device.seek(range - 2);
    errno = 0;
    run.fails("a write across the end of what the offset can say", EINVAL, check.device.write(data), 0);
    check.device.seek(range);
    run.fails("a write behind it", EINVAL, check.device.write(data), 0);
    run.same("the memory's first bytes, which nothing reached", std::span(check.contents).first(8), check.readAt(0, 8));
}

void plainReads(run& run)
{
    memoryUse check(run);
    if (!check.ready || !check.fill()) {
        return;
    }
    check.device.seek(6);
    mern_iic_block block{};
    block.address = check.memory.address;
    mern_iic_config(check.device.handle, MERN_CONFIG_SET, WOBU_IIC_BLOCK, &block, sizeof block);
    run.same("bytes of a read without an offset", 4, static_cast<long long>(check.device.read(4).size()));
    prepareMemory(run, check.device);
    run.same("bytes at the position, which a plain read leaves alone", std::span(check.contents).subspan(6, 4),
             check.device.read(4));
}

void wholeMemory(run& run)
{
    memoryUse check(run);
    if (!check.ready || !check.fill()) {
        return;
    }
    const bytes all = check.readAt(0, check.memory.size);
    run.same("bytes of the whole memory", check.memory.size, static_cast<long long>(all.size()));
    run.holds("they begin as its first pages do",
              all.size() == check.memory.size && std::equal(check.contents.begin(), check.contents.end(), all.begin()));
}

void firstFailures(run& run)
{
    memoryUse check(run, false);
    if (!run.has("first-failure data", run.port.keepsFirstFailures) ||
        !run.has("address where nothing answers", run.port.silentAddress != 0) || !check.ready) {
        return;
    }
    mern_t& handle = check.device.handle;
    void* data = nullptr;
    std::uint8_t byte = 0;
    check.device.target(run.port.silentAddress);
    run.same("result of dropping first-failure data", 0, mern_iic_ffdc_unlock(handle, 0));
    run.same("bytes of first-failure data before a failure", 0, mern_iic_ffdc_extract(handle, 0, &data));
    run.holds("there are none before a failure", data == nullptr);
    mern_iic_read(handle, &byte, 1);
    const int size = mern_iic_ffdc_extract(handle, 0, &data);
    if (run.holds("there are some after a failure", size > 0 && data != nullptr)) {
        const std::string text(static_cast<const char*>(data), static_cast<std::size_t>(size));
        run.holds("they are JSON text of at most 4 KiB", size <= 4096 && text.front() == '{' && text.back() == '}');
        mern_iic_write(handle, &byte, 1);
        void* later = nullptr;
        run.same("their size after a further failure", size, mern_iic_ffdc_extract(handle, 0, &later));
        tavo_util_free(&later);
    }
    tavo_util_free(&data);
    mern_iic_ffdc_unlock(handle, 0);
    run.same("their size after they were dropped", 0, mern_iic_ffdc_extract(handle, 0, &data));
}

void threads(run& run)
{
    memoryUse check(run);
    if (!check.ready || !check.fill()) {
        return;
    }
    std::array<int, 4> wrong{};
    std::vector<std::thread> readers;
    for (std::size_t number = 0; number < wrong.size(); ++number) {
        readers.emplace_back([&check, &count = wrong[number], at = static_cast<std::uint32_t>(number + 1)] {
            openDevice own(check.memory.path);
            class run quiet(check.made.port);
            const bool ready = prepareMemory(quiet, own);
            for (int round = 0; round < 50; ++round) {
                own.seek(at);
                const bytes found = own.read(16);
                count += ready && std::ranges::equal(std::span(check.contents).subspan(at, 16), found) ? 0 : 1;
            }
        });
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    run.same("wrong reads of four threads", 0, wrong[0] + wrong[1] + wrong[2] + wrong[3]);
}

constexpr std::array checks{
    check{"transfers: a position is set, and moves on with the bytes", positions},
    check{"transfers: size 0 touches nothing, and null is EFAULT", nothingToMove},
    check{"transfers: nothing is sent without a target", noTarget},
    check{"transfers: where nothing answers is ENXIO with 0 bytes", silence},
    check{"transfers: a write goes page by page", writesPages},
    check{"transfers: a write past the offset's range is refused whole", writesBeyond},
    check{"transfers: a plain read leaves the position alone", plainReads},
    check{"transfers: a whole memory is read at once", wholeMemory},
    check{"transfers: the first failure is kept until it is dropped", firstFailures},
    check{"transfers: threads with devices of their own do not meet", threads},
};

} // namespace

std::span<const check> transferChecks() { return checks; }

} // namespace kest::check
