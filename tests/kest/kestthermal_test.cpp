/// Thermal sensor reading: the raw word, its status, and the failures.
#include "kest/thermal.h"

#include <cerrno>
#include <memory>

#include "tests/platform/scripted.h"

using namespace scripted;
using namespace kest;

namespace
{

class Thermal : public PlatformTest
{
protected:
    EntryRecord readSensor(const char* path)
    {
        info = {path, 0x1234, 0x77};
        entry.reset(KEST_thermal_sensor_read_temperature_data(&info));
        return entry ? platform.entry(entry.get()) : EntryRecord{};
    }

    KEST_thermal_sensor_info info{};
    std::unique_ptr<ErrlEntry> entry;
};

TEST_F(Thermal, ReadingIsTheSensorsWordFirstByteHigh)
{
    for (const char* path : {"/dev/i2c-1,L,75,90", "/dev/i2c-1,L,92,90"}) {
        entry.reset();
        platform.reset();
        platform.opens().configures(4).writes().reads(hex("23 45")).configures().closes();
        readSensor(path);
        EXPECT_EQ(nullptr, entry);
        EXPECT_EQ(0x2345, info.temperature);
        EXPECT_EQ(0x55, info.status);
        EXPECT_EQ(path, info.devicePath);
        EXPECT_NE(std::string::npos, platform.layerCalls().find("mern_iic_config(h1, 2, 2, 0x190)"));
        EXPECT_NE(std::string::npos,
                  platform.layerCalls().find("mern_iic_write(h1, 1 byte: 00)\nmern_iic_read(h1, 2)\n"));
        EXPECT_EQ("\n", platform.traces());
    }
}

TEST_F(Thermal, ReadingOfEveryBitPattern)
{
    platform.healthy();
    for (unsigned raw = 0; raw <= 0xFFFF; raw += 0x0101 * 7 + 1) {
        platform.readHandler = [this, raw](std::uint8_t* buffer, unsigned size) {
            EXPECT_EQ(2U, size);
            EXPECT_EQ(0xAA, info.status) << "under way";
            EXPECT_EQ(0, info.temperature);
            buffer[0] = static_cast<std::uint8_t>(raw >> 8);
            buffer[1] = static_cast<std::uint8_t>(raw);
            return 2;
        };
        readSensor("/dev/i2c-1,L,75,90");
        EXPECT_EQ(nullptr, entry);
        EXPECT_EQ(raw, info.temperature);
        EXPECT_EQ(0x55, info.status);
    }
}

TEST_F(Thermal, ReadingOfADeviceThatIsNoInputIsZeroAndValid)
{
    // the data port does not serve such a device and returns no entry
    readSensor("/dev/i2c-1,L,D10,90");
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ("\n", platform.layerCalls());
    EXPECT_EQ(0, info.temperature);
    EXPECT_EQ(0x55, info.status);
}

TEST_F(Thermal, FailureThatLeavesNoEntryReadsAsZeroAndValid)
{
    for (const bool committed : {true, false}) {
        platform.reset();
        platform.opens()
            .configures(4)
            .writes()
            .failsRead(committed ? EDEADLK : EIO)
            .capturesFfdc()
            .configures()
            .closes();
        if (!committed) {
            platform.failEntryAllocation();
        }
        readSensor("/dev/i2c-1,L,75,90");
        EXPECT_EQ(nullptr, entry);
        EXPECT_EQ(0, info.temperature);
        EXPECT_EQ(0x55, info.status);
        EXPECT_EQ(committed ? 1 : 0, platform.commits());
    }
}

TEST_F(Thermal, FailedReadIsMarkedInvalidAndHasNoCalloutOfItsOwn)
{
    platform.opens().configures(4).writes().failsRead(ENXIO).capturesFfdc().configures().closes();
    const EntryRecord record = readSensor("/dev/i2c-1,L,75,90");
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(0, info.temperature);
    EXPECT_EQ(0xAA, info.status);
    ASSERT_EQ(2U, record.srcs.size());
    EXPECT_EQ((Src{.module = 13, .reason = 0x1311, .word1 = 6, .word2 = 2, .subsystem = 0x55}), record.srcs[0]);
    EXPECT_EQ((Src{.module = 32, .reason = 0x1329, .word1 = 0, .word2 = 0xAA}), record.srcs[1]);
    EXPECT_EQ(0x80001329U, record.returnCode);
    // from the read
    EXPECT_EQ((std::vector<Callout>{{1, 4}}), record.callouts);
    const TraceRecord* own = nullptr;
    for (const TraceRecord& trace : platform.traceRecords()) {
        own = trace.line == 118 ? &trace : own;
    }
    ASSERT_NE(nullptr, own);
    EXPECT_EQ(" %s,%x,%x,%x,%s", own->format);
    EXPECT_EQ((std::vector<std::string>{"\"KEST_thermal_sensor_read_temperature_data\"", "0x0", "0x0", "0xAA",
                                        "\"/dev/i2c-1,L,75,90\""}),
              own->arguments);
}

TEST_F(Thermal, TextThatCannotBeConvertedIsAFailedRead)
{
    const EntryRecord record = readSensor("nonsense");
    ASSERT_NE(nullptr, entry);
    ASSERT_EQ(2U, record.srcs.size());
    EXPECT_EQ(0x1315, record.srcs[0].reason);
    EXPECT_EQ(0x1329, record.srcs[1].reason);
    EXPECT_EQ(0x80001329U, record.returnCode);
    EXPECT_EQ(0xAA, info.status);
    EXPECT_EQ("\n", platform.layerCalls());
}

TEST_F(Thermal, NullRecordOrPathIsRefusedAndTheRecordLeftAlone)
{
    for (const bool withRecord : {false, true}) {
        platform.reset();
        KEST_thermal_sensor_info untouched{nullptr, 0x1234, 0x77};
        const std::unique_ptr<ErrlEntry> refused{
            KEST_thermal_sensor_read_temperature_data(withRecord ? &untouched : nullptr)};
        ASSERT_NE(nullptr, refused);
        const EntryRecord& record = platform.entry(1);
        EXPECT_EQ((std::vector<Src>{{.module = 32, .reason = 0x132B}}), record.srcs);
        EXPECT_EQ(0x8000132BU, record.returnCode);
        EXPECT_EQ((std::vector<Callout>{{1, 4}}), record.callouts);
        EXPECT_EQ((std::vector<Bytes>{text("kestthermal")}), record.details(2));
        EXPECT_EQ(0x1234, untouched.temperature);
        EXPECT_EQ(0x77, untouched.status);
        // entry, refusal, exit
        ASSERT_EQ(3U, platform.traceRecords().size());
        EXPECT_EQ(74, platform.traceRecords()[1].line);
        EXPECT_EQ(" %s", platform.traceRecords()[1].format);
        EXPECT_EQ("\n", platform.layerCalls());
    }
}

TEST_F(Thermal, EveryLayerCallFailingOnceNeverReadsAsValid)
{
    for (const bool persistent : {false, true}) {
        for (int failing = 1;; ++failing) {
            entry.reset();
            platform.reset();
            platform.healthy().failCall(failing, EIO, persistent);
            readSensor("/dev/i2c-1,L,92,90");
            if (!platform.faultWasMet()) {
                // open, block, speed, lock, target, write, read, unlock, close
                EXPECT_EQ(10, failing);
                EXPECT_EQ(0x55, info.status);
                break;
            }
            EXPECT_NE(nullptr, entry) << platform.failedCall();
            EXPECT_EQ(0xAA, info.status) << platform.failedCall();
            EXPECT_EQ(0, info.temperature);
            EXPECT_EQ(0, platform.openHandles() + platform.heldLocks() + platform.liveBuffers())
                << platform.failedCall();
        }
    }
}

} // namespace
