/// Every kind of fault at every transaction of every operation: its errno, the images, and the handle afterwards.
#include <functional>

#include "tests/system/iic_machine.h"

namespace kest::test
{
namespace
{

/// What an operation does with an open device, and what must be true once it has succeeded.
struct operation {
    const char*                                name;
    std::function<void(OpenDevice&)>           prepare; ///< block and position
    std::function<answer(OpenDevice&, bytes&)> run;
    bytes                                      data;  ///< to write, or of the size to read
    const char*                                image; ///< that it writes; empty: none
    std::size_t                                offset;
    std::size_t                                page;
    std::uint64_t step; ///< of the transactions that faults are tried at: a busy hub is asked often
};

/// What a fault of the bus does to an operation.
struct faultRow {
    const char*                kind;
    bool                       lasts;
    std::vector<std::uint64_t> bytes; ///< at which it strikes
    int                        first; ///< errno when it strikes in the first transaction; 0: the layer gets over it
    int                        later; ///< when it strikes after a page has been sent
};
const faultRow faultRows[] = {
    {"nack", false, {0}, 0, 0},
    {"nack", true, {0}, ENXIO, ETIME},
    {"nack-data", false, {0, 1, 20}, EIO, EIO},
    {"nack-data", true, {0}, EIO, EIO},
    {"hold-sda", false, {0, 1, 20}, ETIME, ETIME},
    {"hold-scl", false, {0, 1, 20}, ETIME, ETIME},
    {"hold-scl", true, {0}, ETIME, ETIME},
    {"short", false, {0, 1, 20}, EIO, EIO},
    {"arbitration", false, {0, 1, 20}, 0, 0},
    {"arbitration", true, {0}, EIO, EIO},
    {"gone", false, {0}, ENODEV, ENODEV},
    {"gone", true, {0}, ENODEV, ENODEV},
};

class IicFaults : public IicMachine
{
protected:
    IicFaults() : IicMachine(0.15) {} // short write cycles: few questions between two pages

    static answer readInto(OpenDevice& device, bytes& data) { return device.read(data); }
    static answer writeFrom(OpenDevice& device, bytes& data) { return device.write(data); }
    static void   use(OpenDevice& device, block settings, long position)
    {
        settings.busyWaitMs = 4; // what is refused for good is given up soon
        ASSERT_EQ((answer{0, 0}), device.set(settings));
        ASSERT_EQ((answer{0, 0}), device.seek(position));
    }

    std::vector<operation> operations() const
    {
        return {
            {"read", [](OpenDevice& d) { use(d, main256(), 40); }, readInto, bytes(300), "", 40, 0, 1},
            {"write", [](OpenDevice& d) { use(d, main256(), 40); }, writeFrom, pattern(140, 9), "main.bin", 40, 64, 1},
            {"write of one page", [](OpenDevice& d) { use(d, small02(), 8); }, writeFrom, pattern(8, 9), "small.bin", 8,
             8, 1},
            {"plain read", [](OpenDevice& d) { use(d, {.address = 0xC0}, 0); }, readInto, bytes(1), "", 0, 0, 1},
            {"plain write", [](OpenDevice& d) { use(d, {.address = 0xC0, .writeCycleMs = 0}, 0); }, writeFrom,
             bytes{2, 0x44}, "", 0, 0, 1},
            {"hub read", [](OpenDevice& d) { use(d, hub128(), onRiser + 8); }, readInto, bytes(1 + 9000), "", 8, 0, 1},
            {"hub write", [](OpenDevice& d) { use(d, hub128(), onRiser + 50); }, writeFrom, pattern(100, 9),
             "riser.bin", 50, 64, 9},
        };
    }

    /// The image holds whole pages from the start of the write: those that count as moved, and at most the one that was sent last.
    void imageHoldsWholePages(const operation& what, const bytes& before, const answer& result) const
    {
        const auto        moved = static_cast<std::size_t>(result.result);
        const std::size_t room  = what.page - (what.offset + moved) % what.page;
        const std::size_t more  = std::min(what.data.size(), moved + room);
        const bytes       now   = image(what.image);
        const bool        exact = now == with(before, what.offset, part(what.data, 0, moved));
        const bool        sent  = now == with(before, what.offset, part(what.data, 0, more));
        EXPECT_TRUE(exact || (sent && (result.error == ETIME || more == what.data.size())));
    }

    /// One run with the fault at its `nth` transaction. @return whether the fault struck
    bool runWith(const operation& what, const faultRow& row, std::uint64_t nth, std::uint64_t byte)
    {
        const bytes before = *what.image == '\0' ? bytes{} : image(what.image);
        OpenDevice  device("sim:planar");
        what.prepare(device);
        machine->addFault({.kind = row.kind, .bus = "planar", .nth = nth, .count = row.lasts ? 0U : 1U, .byte = byte});
        bytes        data   = what.data;
        const answer result = what.run(device, data);
        const bool   struck = machine->faults().front().struck != 0;
        const bool   writes = *what.image != '\0'; // only a write leaves a chip busy that may be silent then
        const int    error  = !struck ? 0 : writes && nth > 1 ? row.later : row.first;
        EXPECT_EQ(error, result.error);
        EXPECT_EQ(error == 0, result.result == static_cast<int>(what.data.size()));
        EXPECT_GE(result.result, 0);
        EXPECT_EQ(error != 0, !device.firstFailure().empty());
        EXPECT_EQ(0, mern_iic_ffdc_unlock(device.handle(), 0));

        machine->clearFaults();
        if (*what.image != '\0') {
            imageHoldsWholePages(what, before, result);
        }
        if (error != 0) { // the handle stays usable, and the same call again does the same in the same place
            EXPECT_EQ((answer{0, 0}), device.reset());
            settle();
            data = what.data;
            EXPECT_EQ((answer{static_cast<int>(data.size()), 0}), what.run(device, data));
        }
        outcomeIsRight(what, before, data);
        if (*what.image != '\0') {
            fill(what.image, before);
        }
        settle();
        return struck;
    }

    void outcomeIsRight(const operation& what, const bytes& before, const bytes& data) const
    {
        if (*what.image != '\0') {
            EXPECT_EQ(with(before, what.offset, what.data), image(what.image));
        } else if (std::string(what.name) == "read") {
            EXPECT_EQ(part(pattern(32768, 1), 40, 300), data);
        } else if (std::string(what.name) == "hub read") {
            EXPECT_EQ(0, data[0]);
            EXPECT_EQ(part(pattern(16384, 5), 8, 9000), part(data, 1, 9000));
        }
    }
};

TEST_F(IicFaults, EachKindAtEachTransactionOfEachOperation)
{
    int met = 0;
    for (const operation& what : operations()) {
        for (const faultRow& row : faultRows) {
            for (const std::uint64_t byte : row.bytes) {
                std::uint64_t nth    = 1;
                bool          struck = true;
                for (; struck; nth += what.step) {
                    SCOPED_TRACE(std::string(what.name) + ", " + row.kind + (row.lasts ? " for good" : " once") +
                                 " at transaction " + std::to_string(nth) + ", byte " + std::to_string(byte));
                    struck = runWith(what, row, nth, byte);
                    met += struck ? 1 : 0;
                    ASSERT_LT(nth, 1000U);
                    if (HasFailure()) {
                        return;
                    }
                }
            }
        }
    }
    EXPECT_GT(met, 400);
}

TEST_F(IicFaults, WriteCycleThatDoesNotEndAtEachPage)
{
    const bytes before = image("main.bin");
    const bytes data   = pattern(300, 9);
    for (std::uint64_t page = 1; page <= 5; ++page) {
        OpenDevice device("sim:planar");
        device.set(main256());
        const auto fault = machine->addFault({.kind = "stuck-write-cycle", .bus = "planar", .nth = page, .count = 1});
        const int  moved = static_cast<int>(64 * (page - 1));
        EXPECT_EQ((answer{moved, ETIME}), device.write(data));
        EXPECT_EQ(with(before, 0, part(data, 0, static_cast<std::size_t>(moved))), image("main.bin"));
        machine->clearFault(fault);
        EXPECT_EQ((answer{300, 0}), device.write(data));
        EXPECT_EQ(with(before, 0, data), image("main.bin"));
        fill("main.bin", before);
    }
}

TEST_F(IicFaults, RefusedReadAddressInTheMiddleOfARead)
{
    OpenDevice device("sim:planar");
    bytes      data(10);
    device.set(main256());
    machine->addFault({.kind = "nack", .bus = "planar", .way = "read", .count = 1});
    EXPECT_EQ((answer{0, ENXIO}), device.read(data)); // it answered a moment ago: that is no write cycle
    EXPECT_EQ((answer{10, 0}), device.read(data));
}

TEST_F(IicFaults, HubFaultsAreToldByTheFirstByteOfAReadOrByAPlainRead)
{
    struct {
        const char*   kind;
        std::uint32_t value;
        int           status;
    } const faults[] = {{"hub-status", 5, 5}, {"hub-status", 200, 200}, {"hub-hold-sda", 0, 3}, {"hub-hold-scl", 0, 4}};
    for (const auto& each : faults) {
        OpenDevice device("sim:planar");
        bytes      data(33);
        device.set(hub128());
        device.seek(onRiser);
        machine->addFault({.kind = each.kind, .bus = "planar", .count = 1, .value = each.value});
        EXPECT_EQ((answer{0, ENODATA}), device.read(data)) << each.kind;
        EXPECT_EQ(each.status, data[0]);
        EXPECT_EQ((answer{0, ENODATA}), device.read(data)); // until it is read plainly
        machine->clearFaults();
        device.set({.address = 0x80});
        EXPECT_EQ((answer{2, 0}), device.write({0x20, 0x06}));
        device.readAll(1);
        device.set(hub128());
        EXPECT_EQ(part(pattern(16384, 5), 0, 32), part(device.readAll(33), 1, 32));
    }
}

TEST_F(IicFaults, HubStatusAtEachPageOfAWriteIsStillToldAtItsEnd)
{
    const bytes before = image("riser.bin");
    for (std::uint64_t page = 1; page <= 10; ++page) {
        OpenDevice device("sim:planar");
        device.set(hub128());
        device.seek(onRiser);
        machine->addFault({.kind = "hub-status", .bus = "planar", .nth = page, .count = 1, .value = 6});
        EXPECT_EQ((answer{640, 0}), device.write(pattern(640, 9)));
        machine->clearFaults();
        device.set({.address = 0x80});
        EXPECT_EQ((bytes{6}), device.readAll(1)) << page;
        const auto  done = static_cast<std::size_t>(page - 1) * 64;
        const bytes now  = image("riser.bin");
        EXPECT_EQ(part(before, done + 64, 1000), part(now, done + 64, 1000)); // nothing after the page that failed
        EXPECT_EQ(part(pattern(640, 9), 0, done), part(now, 0, done));
        fill("riser.bin", before);
    }
}

TEST_F(IicFaults, SilentHub)
{
    OpenDevice device("sim:planar");
    device.set(hub128());
    device.seek(onRiser);
    machine->addFault({.kind = "hub-silent", .bus = "planar"});
    bytes data(5);
    EXPECT_EQ((answer{0, ENXIO}), device.read(data));
    EXPECT_EQ((answer{0, ENXIO}), device.write(data));
    machine->clearFaults();
    machine->addFault({.kind = "hub-bad-first-byte", .bus = "planar", .count = 1, .value = 0x33});
    EXPECT_EQ((answer{0, ENODATA}), device.read(data));
}

TEST_F(IicFaults, GoneBusComesBack)
{
    OpenDevice device("sim:planar");
    bytes      data(5);
    device.set(main256());
    machine->addFault({.kind = "gone", .bus = "planar"});
    EXPECT_EQ((answer{0, ENODEV}), device.read(data));
    EXPECT_EQ((answer{-1, ENODEV}), device.reset());
    machine->clearFaults();
    EXPECT_EQ((answer{5, 0}), device.read(data));
}

TEST_F(IicFaults, ResetTellsWhoStillHoldsTheBus)
{
    OpenDevice device("sim:planar");
    bytes      data(5);
    device.set(main256());
    machine->addFault({.kind = "hold-sda", .bus = "planar", .count = 1, .value = 1}); // outlasts one reset
    EXPECT_EQ((answer{0, ETIME}), device.read(data));
    EXPECT_EQ((answer{-1, ETIME}), device.reset());
    EXPECT_EQ((answer{0, 0}), device.reset());
    EXPECT_EQ((answer{5, 0}), device.read(data));
    errno = 0;
    EXPECT_EQ(-1, mern_iic_reset(device.handle(), 0));
    EXPECT_EQ(EINVAL, errno);
}

} // namespace
} // namespace kest::test
