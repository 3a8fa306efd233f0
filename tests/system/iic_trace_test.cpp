/// The layer's trace buffer "IIC", and the part of it in an entry of the error log.
#include <algorithm>

#include "tests/host/trace_support.h"
#include "tests/system/iic_machine.h"
#include "tests/system/library_machine.h"

namespace kest::test
{
namespace
{

constexpr std::uint32_t openHash = 0xD35EC4C9;
constexpr std::uint32_t doneHash = 0x26F38071;
constexpr std::uint32_t failedHash = 0xE0ACCFB4;

class IicTrace : public IicMachine
{
protected:
    /// Lines since the last call, as "hash text".
    using Traced = std::vector<std::pair<std::uint32_t, std::string>>;
    Traced news()
    {
        const auto records = recordsOf("IIC");
        Traced lines;
        for (const host::traceRecord& record : records) {
            if (record.timeNs > mSeenNs) {
                lines.emplace_back(record.hash, record.text);
                EXPECT_FALSE(record.cut) << record.text;
            }
        }
        mSeenNs = records.empty() ? mSeenNs : records.back().timeNs;
        return lines;
    }
    /// The line of the failed call, the only one traced since.
    std::string failure()
    {
        const Traced lines = news();
        EXPECT_EQ(1U, lines.size());
        EXPECT_EQ(failedHash, lines.empty() ? 0 : lines.back().first);
        return lines.empty() ? "" : lines.back().second;
    }
    void fault(const char* kind, const char* way = "", std::uint64_t byte = 0)
    {
        machine->clearFaults();
        wires->reset();
        machine->addFault({.kind = kind, .bus = "planar", .way = way, .byte = byte});
    }

    Bytes data = Bytes(9);
    std::uint64_t mSeenNs = 0;
};

TEST_F(IicTrace, EachCallThatSucceedsIsALine)
{
    EXPECT_EQ(0, MernInitialize(0));
    news();
    {
        OpenDevice device("sim:planar@A0");
        EXPECT_EQ((Traced{{openHash, " open sim:planar@A0: errno 0"}}), news());
        device.set(main256());
        device.seek(0x1234);
        device.readAll(9);
        device.write({1, 2});
        device.reset();
        EXPECT_EQ((Traced{{doneHash, " config sim:planar: target A0 position 0 result 0"},
                          {doneHash, " seek sim:planar: target A0 position 1234 result 0"},
                          {doneHash, " read sim:planar: target A0 position 123d result 9"},
                          {doneHash, " write sim:planar: target A0 position 123f result 2"},
                          {doneHash, " reset sim:planar: target A0 position 123f result 0"}}),
                  news());
        EXPECT_EQ("", device.firstFailure());
        mern_iic_ffdc_unlock(device.handle(), 0);
        EXPECT_EQ((Traced{{doneHash, " ffdc extract sim:planar: target A0 position 123f result 0"},
                          {doneHash, " ffdc unlock sim:planar: target A0 position 123f result 0"}}),
                  news());
    }
    EXPECT_EQ((Traced{{doneHash, " close sim:planar: target A0 position 123f result 0"}}), news());
}

TEST_F(IicTrace, AFailedOpenIsTracedWithItsReason)
{
    // the buffer is made for the first line
    EXPECT_EQ(ENOENT, OpenDevice("sim:nowhere").error());
    news();
    EXPECT_EQ(ENOENT, OpenDevice("sim:nowhere").error());
    EXPECT_EQ((Traced{{openHash, " open sim:nowhere: errno 2"}}), news());
    mern_iic_open(MernNode(), nullptr, MERN_OPEN_READ_WRITE_SYNC);
    EXPECT_EQ((Traced{{openHash, " open (null): errno 14"}}), news());
}

TEST_F(IicTrace, AFailedReadIsTracedWithOperationBusTargetPositionMovedErrnoAndSilence)
{
    struct {
        const char* kind;
        const char* way;
        std::uint64_t byte;
        const char* line;
    } const rows[] = {
        {"short", "read", 4, " read sim:planar failed: target A0 position 1234 moved 4 of 9 errno 5 EIO "},
        {"nack", "", 0, " read sim:planar failed: target A0 position 1234 moved 0 of 9 errno 6 ENXIO absent"},
        {"hold-scl", "", 0, " read sim:planar failed: target A0 position 1234 moved 0 of 9 errno 62 ETIME "},
        {"gone", "", 0, " read sim:planar failed: target A0 position 1234 moved 0 of 9 errno 19 ENODEV "},
    };
    OpenDevice device("sim:planar");
    device.set(main256());
    device.seek(0x1234);
    for (const auto& row : rows) {
        fault(row.kind, row.way, row.byte);
        news();
        device.read(data);
        EXPECT_EQ(row.line, failure());
    }
}

TEST_F(IicTrace, AFailedWriteIsTracedWithWhatItWrote)
{
    OpenDevice device("sim:planar");
    device.set(main256());
    device.seek(0x40);
    machine->addFault({.kind = "stuck-write-cycle", .bus = "planar", .nth = 2, .count = 1});
    news();
    EXPECT_EQ((Answer{64, ETIME}), device.write(pattern(150)));
    EXPECT_EQ(" write sim:planar failed: target A0 position 40 moved 64 of 150 errno 62 ETIME busy", failure());
}

TEST_F(IicTrace, OtherFailedCallsHubsAndArgumentsAreTraced)
{
    OpenDevice device("sim:planar");
    device.set(hub128());
    device.seek(0x07A20010);
    news();
    // no such device behind the hub
    EXPECT_EQ((Answer{0, ENODATA}), device.read(data));
    EXPECT_EQ(" read sim:planar failed: target 80 position 7a20010 moved 0 of 9 errno 61 ENODATA ", failure());
    mern_iic_seek(device.handle(), 0, 1);
    EXPECT_EQ(" seek sim:planar failed: target 80 position 7a20010 moved 0 of 0 errno 22 EINVAL ", failure());
    device.setNumber(3, 0xC0);
    EXPECT_EQ(" config sim:planar failed: target 80 position 7a20010 moved 0 of 0 errno 38 ENOSYS ", failure());
    mern_iic_read(device.handle(), nullptr, 5);
    EXPECT_EQ(" read sim:planar failed: target 80 position 7a20010 moved 0 of 5 errno 14 EFAULT ", failure());
    mern_iic_reset(device.handle(), 0);
    EXPECT_EQ(" reset sim:planar failed: target 80 position 7a20010 moved 0 of 0 errno 22 EINVAL ", failure());
    mern_iic_ffdc_extract(device.handle(), 1, nullptr);
    EXPECT_EQ(" ffdc extract sim:planar failed: target 80 position 7a20010 moved 0 of 0 errno 14 EFAULT ", failure());
}

class EntryOfAFailure : public LibraryMachine
{
protected:
    /// The lines of "IIC" in the entry, which has one section of them.
    static std::vector<std::string> linesOf(const ErrlEntry& entry)
    {
        std::vector<std::string> lines;
        int sections = 0;
        for (const host::loggedTrace& trace : host::describeEntry(entry).traces) {
            std::istringstream text(trace.text);
            sections += trace.buffer == "IIC" ? 1 : 0;
            for (std::string line; trace.buffer == "IIC" && std::getline(text, line);) {
                lines.push_back(line);
            }
        }
        EXPECT_EQ(1, sections);
        return lines;
    }
    static void holds(const ErrlEntry* entry, const std::string& end)
    {
        ASSERT_NE(nullptr, entry);
        const auto lines = linesOf(*entry);
        EXPECT_TRUE(std::ranges::any_of(lines, [&end](const std::string& line) { return line.ends_with(end); }))
            << "no line ends with '" << end << "': " << testing::PrintToString(lines);
    }
    static std::unique_ptr<ErrlEntry> readEntry(const std::string& text, unsigned int offset, unsigned int length)
    {
        unsigned char* data = nullptr;
        const std::unique_ptr<ErrlEntry> none;
        std::unique_ptr<ErrlEntry> entry(
            KEST_seepromRead(address(text), nullptr, offset, &length, &data, hardware.data()));
        tavo_util_free(reinterpret_cast<void**>(&data));
        return entry;
    }
    static std::unique_ptr<ErrlEntry> writeEntry(const std::string& text, unsigned int offset, const Bytes& data)
    {
        auto length = static_cast<unsigned int>(data.size());
        return std::unique_ptr<ErrlEntry>(
            KEST_seepromWrite(address(text), nullptr, offset, &length, data.data(), hardware.data()));
    }
};

TEST_F(EntryOfAFailure, HoldsTheLineAboutTheReadThatFailed)
{
    machine->addFault({.kind = "nack", .bus = "planar", .address = 0xA0});
    holds(readEntry("sim:planar,L,2C0256,A0", 0x1F4, 40).get(),
          " read sim:planar failed: target A0 position 1f4 moved 0 of 40 errno 6 ENXIO absent");
    machine->clearFaults();
    machine->addFault({.kind = "short", .bus = "planar", .address = 0xA0, .way = "read", .byte = 7});
    holds(readEntry("sim:planar,L,2C0256,A0", 0x1F4, 40).get(),
          " read sim:planar failed: target A0 position 1f4 moved 7 of 40 errno 5 EIO ");
}

TEST_F(EntryOfAFailure, HoldsTheLineAboutTheWriteThatFailed)
{
    machine->addFault({.kind = "nack-data", .bus = "planar", .address = 0xA0, .nth = 2, .byte = 3});
    holds(writeEntry("sim:planar,L,2C0256,A0", 0x7C0, pattern(100)).get(),
          " write sim:planar failed: target A0 position 7c0 moved 64 of 100 errno 5 EIO ");
}

} // namespace
} // namespace kest::test
