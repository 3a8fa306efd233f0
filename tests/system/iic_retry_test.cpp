/// A time-out in each page of a write and each piece of a read, then the library's reset and retry. Image and buffer
/// must be exact. The retry neither seeks nor configures: it relies on the layer's position and block, which the
/// failure must not change.
#include "kestseeprom.h"
#include "kestwobu.h"
#include "tests/system/iic_machine.h"

namespace kest::test
{
namespace
{

class IicRetry : public IicMachine
{
protected:
    IicRetry() : IicMachine(0.15) {}

    /// Word 4 of the first SRC: the errno of the failure.
    static std::uint32_t errnoWord(const ErrlEntry& entry)
    {
        unsigned int count = 0;
        const std::uint32_t* words = entry.getSRC(0)->getHexData(count);
        return count > 4 ? words[4] : 0;
    }

    /// Opens, configures, seeks when the position is not 0, transfers; after a time-out resets and retries.
    /// @return whether the fault struck
    bool transfer(const Block& settings, std::uint32_t position, Bytes& data, bool read, std::uint64_t nth,
                  std::uint64_t byte)
    {
        OpenDevice device("sim:planar");
        device.set(settings);
        if (position != 0) {
            device.seek(static_cast<long>(position));
        }
        machine->addFault({.kind = "hold-sda", .bus = "planar", .nth = nth, .count = 1, .byte = byte});
        ErrlEntry* entry = nullptr;
        unsigned int length = static_cast<unsigned int>(data.size());
        if (read) {
            kest_wobuRead(device.handle(), entry, &length, data.data(), 1);
        } else {
            kest_wobuWrite(device.handle(), entry, &length, data.data());
        }
        const bool struck = machine->faults().front().struck != 0;
        EXPECT_EQ(struck, entry != nullptr);
        if (entry != nullptr) {
            // ETIME, for which the library resets the bus
            EXPECT_EQ(62U, errnoWord(*entry));
            length = static_cast<unsigned int>(data.size());
            kest_wobuResetRetry(device.handle(), entry, &length, data.data(), read ? 0 : 1);
        }
        EXPECT_EQ(nullptr, entry);
        EXPECT_EQ(data.size(), length);
        machine->clearFaults();
        settle();
        return struck;
    }
};

struct RetryCase {
    const char* name;
    Block settings;
    std::uint32_t position;
    std::size_t length;
    const char* image;
    unsigned int seed; ///< of the image's pattern
    std::size_t offset; ///< in the image
};
const Block direct{.address = 0xA0, .offsetLength = 2, .pageSize = 64};
const Block hub{.address = 0x80, .offsetLength = 4, .pageSize = 64};
// with short pages the hub is busy for less time
const Block hubInShortPages{.address = 0x80, .offsetLength = 4, .pageSize = 32};

TEST_F(IicRetry, TimeOutAtEachTransactionOfAWrite)
{
    const RetryCase cases[] = {{"direct", direct, 0, 300, "main.bin", 1, 0},
                               {"direct, not from 0", direct, 100, 300, "main.bin", 1, 100},
                               {"hub", hubInShortPages, 0x03A20000, 150, "riser.bin", 5, 0},
                               {"hub, not from 0", hubInShortPages, 0x03A20064, 150, "riser.bin", 5, 100}};
    for (const RetryCase& each : cases) {
        const Bytes before = image(each.image);
        for (const std::uint64_t byte : {0U, 20U}) {
            std::uint64_t nth = 1;
            bool struck = true;
            for (; struck; ++nth) {
                SCOPED_TRACE(std::string(each.name) + ", transaction " + std::to_string(nth) + ", byte " +
                             std::to_string(byte));
                Bytes data = pattern(each.length, 9);
                struck = transfer(each.settings, each.position, data, false, nth, byte);
                EXPECT_EQ(with(before, each.offset, data), image(each.image));
                fill(each.image, before);
                if (HasFailure()) {
                    return;
                }
            }
            // the fault struck at least in each of five pages
            EXPECT_LT(5U, nth) << each.name;
        }
    }
}

TEST_F(IicRetry, TimeOutAtEachPieceOfARead)
{
    const RetryCase cases[] = {{"direct", direct, 0, 20000, "", 1, 0},
                               {"direct, not from 0", direct, 100, 20000, "", 1, 100},
                               {"hub", hub, 0x03A20000, 16001, "", 5, 0},
                               {"hub, not from 0", hub, 0x03A20064, 16001, "", 5, 100}};
    for (const RetryCase& each : cases) {
        const bool throughHub = each.settings.offsetLength == 4;
        const Bytes all = pattern(throughHub ? 16384 : 32768, each.seed);
        int met = 0;
        bool struck = true;
        for (std::uint64_t nth = 1; struck; ++nth) {
            for (const std::uint64_t byte : {0U, 1U}) {
                SCOPED_TRACE(std::string(each.name) + ", transaction " + std::to_string(nth) + ", byte " +
                             std::to_string(byte));
                Bytes data(each.length, 0x5A);
                struck = transfer(each.settings, each.position, data, true, nth, byte);
                met += struck ? 1 : 0;
                const std::size_t status = throughHub ? 1 : 0;
                EXPECT_EQ(0, throughHub ? data[0] : 0);
                EXPECT_EQ(part(all, each.offset, each.length - status), part(data, status, each.length - status));
                if (HasFailure()) {
                    return;
                }
            }
        }
        // there are two pieces
        EXPECT_EQ(4, met) << each.name;
    }
}

} // namespace
} // namespace kest::test
