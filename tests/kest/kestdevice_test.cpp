/// Device objects: the device of a chain, its lock, operations and their phases.
#include "kestdevice.h"

#include <algorithm>
#include <cerrno>
#include <malloc.h>
#include <memory>
#include <set>
#include <sstream>

#include "kest955x.h"
#include "tests/platform/scripted.h"

using namespace scripted;
using namespace kest;

namespace
{

/// Builds chains and devices, and keeps the entry that a call returns.
class Device : public PlatformTest
{
protected:
    ~Device() override
    {
        KEST_deleteDevAddress(&chain, true);
        deleteDeviceLink(built);
    }

    void link(std::initializer_list<kest_deviceAddress> nodes)
    {
        for (const kest_deviceAddress& node : nodes) {
            KEST_addDevAddress(node.address, node.type, node.port, &chain);
        }
        // it becomes null, whatever it was
        EdalDevice* second = reinterpret_cast<EdalDevice*>(this);
        buildDeviceLink(chain, &built, &second);
        EXPECT_EQ(nullptr, second);
    }

    /// Lines of the failures traced since the log was cleared.
    std::vector<int> failureLines() const
    {
        std::vector<int> lines;
        std::istringstream traces(platform.tracesWithLines().substr(1));
        for (std::string trace; std::getline(traces, trace);) {
            lines.push_back(std::stoi(trace));
        }
        return lines;
    }

    /// The only SRC of the entry, without its source line. That line, like the one of its trace, must be the line of
    /// the failure.
    Src srcWithoutLine(const EntryRecord& record) const
    {
        const std::vector<int> lines = failureLines();
        if (record.srcs.size() != 1 || lines.size() != 1) {
            ADD_FAILURE() << "not one SRC and one trace: " << record.text() << platform.tracesWithLines();
            return {};
        }
        Src src = record.srcs[0];
        EXPECT_NEAR(lines[0], src.word1, 5) << "source line";
        src.word1 = 0;
        return src;
    }

    kest_deviceAddress* chain = nullptr;
    EdalDevice* built = nullptr;
};

using BuildDeviceLink = Device;

TEST_F(BuildDeviceLink, MakesADeviceOfEachRegisterDeviceType)
{
    for (const std::uint32_t type : {0xD10U, 0x9551U, 0x9552U, 0x9554U, 0x9555U, 0x92U, 0x75U}) {
        const kest_deviceAddress node{0xC4, static_cast<kest_deviceType>(type), 3, nullptr};
        EdalDevice* second = nullptr;
        buildDeviceLink(&node, &built, &second);
        ASSERT_NE(nullptr, built) << type;
        EXPECT_EQ(0xC4U, built->getAddress()) << type;
        EXPECT_EQ(nullptr, built->getNextDevice()) << type;
        EXPECT_EQ(nullptr, built->getOperation()) << type;
        EXPECT_EQ(nullptr, second) << type;
        deleteDeviceLink(built);
        built = nullptr;
    }
    EXPECT_EQ(0, platform.entryCount());
}

TEST_F(BuildDeviceLink, MakesNothingOfHubs)
{
    for (const std::uint32_t type : {0xF0U, 0x922U}) {
        const kest_deviceAddress node{0x80, static_cast<kest_deviceType>(type), 3, nullptr};
        EdalDevice* second = nullptr;
        built = reinterpret_cast<EdalDevice*>(this);
        buildDeviceLink(&node, &built, &second);
        EXPECT_EQ(nullptr, built) << type;
    }
    EXPECT_EQ(0, platform.entryCount());
}

TEST_F(BuildDeviceLink, ReturnsTheDeviceBehindAHub)
{
    link({{0x80, KEST_DEV_922HUB, 3, nullptr}, {0xC2, KEST_DEV_9552, 0, nullptr}});
    ASSERT_NE(nullptr, built);
    EXPECT_EQ(0xC2U, built->getAddress());
    EXPECT_EQ(0, platform.entryCount());
}

TEST_F(BuildDeviceLink, ReportsEachOtherTypeInAnEntryOfItsOwn)
{
    for (const std::uint32_t type : {0x9553U, 0x1C0002U, 0x2C0032U, 0x2C0064U, 0x2C0128U, 0x2C0256U, 0x2C0512U, 0x172U,
                                     0U, 0x9550U, 0x9556U, 0xFFFFFFFFU}) {
        platform.reset();
        const kest_deviceAddress node{0xC4, static_cast<kest_deviceType>(type), 0, nullptr};
        EdalDevice* second = nullptr;
        buildDeviceLink(&node, &built, &second);
        EXPECT_EQ(nullptr, built) << type;
        ASSERT_EQ(1, platform.entryCount()) << type;
        const EntryRecord& record = platform.entry(1);
        EXPECT_EQ((Src{.module = 42, .reason = 0x132E, .word2 = type}), srcWithoutLine(record));
        EXPECT_EQ((std::vector<Bytes>{text("kestdevice")}), record.details(2));
        EXPECT_EQ(0x800013FFU, record.returnCode);
        EXPECT_EQ((std::vector<Callout>{{1, 4}}), record.callouts);
        EXPECT_EQ((std::vector<Commit>{{0x1300, 0x2000}}), record.commits);
        EXPECT_TRUE(record.deleted);
        ASSERT_EQ(1U, platform.traceRecords().size() - 2) << "entry, failure, exit";
        EXPECT_EQ((std::vector<std::string>{"\"buildDeviceLink\""}), platform.traceRecords()[1].arguments);
    }
}

TEST_F(BuildDeviceLink, KeepsWhatADeeperNodeMade)
{
    link({{0xC0, static_cast<kest_deviceType>(0x9553), 0, nullptr}, {0xC2, KEST_DEV_9552, 0, nullptr}});
    ASSERT_NE(nullptr, built);
    EXPECT_EQ(0xC2U, built->getAddress());
    EXPECT_EQ(1, platform.entryCount());
}

TEST_F(BuildDeviceLink, NodeNearestTheMasterReplacesADeeperOne)
{
    link({{0xC0, KEST_DEV_9551, 0, nullptr}, {0xC2, KEST_DEV_9552, 0, nullptr}, {0xC4, KEST_DEV_D10, 0, nullptr}});
    ASSERT_NE(nullptr, built);
    EXPECT_EQ(0xC0U, built->getAddress());
}

TEST_F(BuildDeviceLink, TakesTheDeepestNodeFirst)
{
    link({{1, KEST_DEV_172, 0, nullptr}, {2, KEST_DEV_HUB_F0, 0, nullptr}, {3, KEST_DEV_SEEPROM_2K, 0, nullptr}});
    ASSERT_EQ(2, platform.entryCount());
    EXPECT_EQ(0x1C0002U, platform.entry(1).srcs.at(0).word2);
    EXPECT_EQ(0x172U, platform.entry(2).srcs.at(0).word2);
}

TEST_F(BuildDeviceLink, ReturnsNoDeviceWithoutAChainOrMemory)
{
    link({});
    EXPECT_EQ(nullptr, built);
    platform.failAllocation(1);
    const kest_deviceAddress node{0xC4, KEST_DEV_9555, 0, nullptr};
    EdalDevice* second = nullptr;
    buildDeviceLink(&node, &built, &second);
    EXPECT_EQ(nullptr, built);
}

TEST_F(BuildDeviceLink, WalksAChainOfAnyLength)
{
    std::vector<kest_deviceAddress> nodes(20000, {0xC4, KEST_DEV_9551, 0, nullptr});
    for (std::size_t i = 0; i + 1 < nodes.size(); ++i) {
        nodes[i].next = &nodes[i + 1];
    }
    nodes[0].address = 0xC6;
    EdalDevice* second = nullptr;
    buildDeviceLink(nodes.data(), &built, &second);
    ASSERT_NE(nullptr, built);
    EXPECT_EQ(0xC6U, built->getAddress());
}

/// Notes its deletion. A next device can follow it.
class LinkedDevice : public EdalDevice
{
public:
    LinkedDevice(std::uint32_t address, EdalDevice* next, std::vector<std::uint32_t>& deleted)
        : EdalDevice(address), m_deleted(deleted)
    {
        m_next = next;
    }
    ~LinkedDevice() override { m_deleted.push_back(m_address); }

private:
    std::vector<std::uint32_t>& m_deleted;
};

TEST_F(Device, LinkIsDeletedFromItsEnd)
{
    std::vector<std::uint32_t> deleted;
    deleteDeviceLink(new LinkedDevice(1, new LinkedDevice(2, new LinkedDevice(3, nullptr, deleted), deleted), deleted));
    EXPECT_EQ((std::vector<std::uint32_t>{3, 2, 1}), deleted);
    deleteDeviceLink(nullptr);
}

TEST_F(Device, BaseClassKeepsNeitherNextDeviceNorOperation)
{
    Dp955xOps::ReadRegister operation(0, 1);
    EdalDevice device(0x12345678);
    device.setNextDevice(&device);
    device.setOperation(&operation);
    EXPECT_EQ(nullptr, device.getNextDevice());
    EXPECT_EQ(nullptr, device.getOperation());
    EXPECT_EQ(0x12345678U, device.getAddress());
}

TEST_F(Device, BaseClassReportsWhatItDoesNotSupport)
{
    struct {
        ErrlEntry* (EdalDevice::*call)(mern_t);
        const char* name;
        int module;
    } const rows[] = {{&EdalDevice::doOperation, "\"doOperation\"", 26},
                      {&EdalDevice::lockDevice, "\"lockDevice\"", 39},
                      {&EdalDevice::unlockDevice, "\"unlockDevice\"", 43}};
    for (const auto& row : rows) {
        platform.reset();
        EdalDevice device(0xC0);
        const std::unique_ptr<ErrlEntry> entry{(device.*row.call)(platform.openHandle())};
        ASSERT_NE(nullptr, entry) << row.name;
        const EntryRecord& record = platform.entry(1);
        EXPECT_EQ((Src{.module = static_cast<std::uint8_t>(row.module), .reason = 0x13FF}), srcWithoutLine(record));
        EXPECT_EQ((std::vector<Bytes>{text("kestdevice")}), record.details(2));
        EXPECT_EQ(0x800013FFU, record.returnCode);
        EXPECT_EQ((std::vector<Callout>{{1, 4}}), record.callouts);
        EXPECT_EQ("\n", platform.layerCalls());
        ASSERT_EQ(3U, platform.traceRecords().size()) << "entry, failure, exit";
        for (const TraceRecord& trace : platform.traceRecords()) {
            EXPECT_EQ((std::vector<std::string>{row.name}), trace.arguments);
        }
    }
}

// --- lock ---

class DeviceLock : public Device
{
protected:
    ErrlEntry* lock() { return device->lockDevice(handle); }
    ErrlEntry* unlock() { return device->unlockDevice(handle); }
    void destroy() { device.reset(); }

    mern_t handle = platform.openHandle();
    std::unique_ptr<GenericEdalDevice> device = std::make_unique<GenericEdalDevice>(0xC0);
};

TEST_F(DeviceLock, SendsTheSameBytesToLockAndUnlockOnEveryHost)
{
    platform.configures(2);
    EXPECT_EQ(nullptr, lock());
    EXPECT_EQ(nullptr, unlock());
    EXPECT_EQ(R"(
mern_iic_config(h1, 2, 17, kind 2, address 0xC0, timeout 500, big-endian)
mern_iic_config(h1, 2, 18, kind 2, address 0xC0, timeout 500, big-endian)
)",
              platform.calls());
    for (const ConfigCall& call : platform.configs()) {
        EXPECT_EQ(hex("00 02 00 C0 00 00 01 F4"), call.value);
    }
    destroy();
    EXPECT_EQ(0, platform.entryCount());
}

TEST_F(DeviceLock, TracesEntryAndExitWhenTakenAndReleased)
{
    platform.configures(2);
    EXPECT_EQ(nullptr, lock());
    EXPECT_EQ(nullptr, unlock());
    for (const char* name : {"\"lockDevice\"", "\"unlockDevice\""}) {
        const auto named = [name](const TraceRecord& record) { return record.arguments.front() == name; };
        EXPECT_EQ(2, std::ranges::count_if(platform.traceRecords(), named)) << name;
    }
}

TEST_F(DeviceLock, CarriesTheLowHalfOfTheAddress)
{
    device = std::make_unique<GenericEdalDevice>(0x89ABCDEF);
    platform.configures(2);
    EXPECT_EQ(nullptr, lock());
    EXPECT_EQ(nullptr, unlock());
    EXPECT_EQ(hex("00 02 CD EF 00 00 01 F4"), platform.configs().at(0).value);
    EXPECT_EQ(hex("00 02 CD EF 00 00 01 F4"), platform.configs().at(1).value);
}

TEST_F(DeviceLock, TakenTwiceFailsWithoutTouchingTheBus)
{
    platform.configures();
    EXPECT_EQ(nullptr, lock());
    platform.clearLog();
    const std::unique_ptr<ErrlEntry> entry{lock()};
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ("\n", platform.layerCalls());
    const EntryRecord& record = platform.entry(1);
    EXPECT_EQ((Src{.module = 40, .reason = 0x132F, .word2 = 0xC0}), srcWithoutLine(record));
    EXPECT_EQ((std::vector<Bytes>{text("kestdevice")}), record.details(2));
    EXPECT_EQ(0x8000132FU, record.returnCode);
    EXPECT_EQ((std::vector<Callout>{{1, 4}}), record.callouts);
    const std::vector<std::string> traces = platform.lines(kindTrace);
    ASSERT_EQ(1U, traces.size());
    EXPECT_NE(std::string::npos, traces[0].find("\"lockDevice\"")) << traces[0];

    // the first lock is still held
    platform.configures();
    EXPECT_EQ(nullptr, unlock());
}

TEST_F(DeviceLock, NotHeldIsReleasedWithoutTouchingTheBus)
{
    EXPECT_EQ(nullptr, unlock());
    EXPECT_EQ("\n", platform.calls());
}

TEST_F(DeviceLock, ThatFailedIsNotHeld)
{
    platform.failsConfig(EBUSY).capturesFfdc();
    const std::unique_ptr<ErrlEntry> entry{lock()};
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ((Src{.module = 12, .reason = 0x130E, .word1 = 16, .word2 = 2, .word3 = 17, .subsystem = 0x55}),
              platform.entry(1).srcs.at(0));
    EXPECT_TRUE(platform.entry(1).softwareErrors.empty());
    platform.clearLog();
    EXPECT_EQ(nullptr, unlock());
    destroy();
    EXPECT_EQ("\n", platform.layerCalls());
    EXPECT_EQ(1, platform.entryCount());
}

TEST_F(DeviceLock, WhoseReleaseFailedIsStillHeld)
{
    platform.configures().failsConfig(EIO).capturesFfdc().configures();
    EXPECT_EQ(nullptr, lock());
    const std::unique_ptr<ErrlEntry> entry{unlock()};
    EXPECT_NE(nullptr, entry);
    // the bus is asked again
    EXPECT_EQ(nullptr, unlock());
    EXPECT_EQ(3U, platform.configs().size());
    destroy();
    EXPECT_EQ(1, platform.entryCount());
}

TEST_F(DeviceLock, HeldByThisHandleAlreadyCountsAsTaken)
{
    platform.failsConfig(EDEADLK).capturesFfdc().configures();
    EXPECT_EQ(nullptr, lock());
    EXPECT_EQ(1, platform.commits());
    EXPECT_EQ(nullptr, unlock());
    EXPECT_EQ(2U, platform.configs().size());
}

TEST_F(DeviceLock, StillHeldAtDestructionIsReportedAndNotReleased)
{
    platform.configures();
    EXPECT_EQ(nullptr, lock());
    platform.clearLog();
    destroy();
    EXPECT_EQ("\n", platform.layerCalls());
    ASSERT_EQ(1, platform.entryCount());
    const EntryRecord& record = platform.entry(1);
    EXPECT_EQ((Src{.module = 41, .reason = 0x132F, .word2 = 0xC0}), srcWithoutLine(record));
    EXPECT_EQ((std::vector<Bytes>{text("kestdevice")}), record.details(2));
    EXPECT_EQ(0x8000132FU, record.returnCode);
    EXPECT_EQ((std::vector<Callout>{{1, 4}}), record.callouts);
    EXPECT_EQ((std::vector<Commit>{{0x1300, 0x4000}}), record.commits);
    EXPECT_TRUE(record.deleted);
    const std::vector<std::string> traces = platform.lines(kindTrace);
    ASSERT_EQ(1U, traces.size());
    EXPECT_NE(std::string::npos, traces[0].find("\"GenericEdalDevice\"")) << traces[0];
}

// --- operations ---

using DeviceOperation = DeviceLock;

/// An operation of any direction: reads one byte, writes two.
class AnyOperation : public EdalDeviceOperation
{
public:
    explicit AnyOperation(std::uint32_t direction) : EdalDeviceOperation(0x77, 1), m_direction(direction) {}
    std::uint8_t* getBuffer() override { return m_buffer; }
    std::uint32_t getDirection() override { return m_direction; }
    std::uint32_t getLength(std::uint32_t phase) override { return phase; }
    Bytes fields() const { return {m_bufferLength, m_register, m_dataLength}; }
    /// Replaces its buffer, as a derived class may.
    void takeBuffer()
    {
        std::free(m_buffer);
        m_buffer = static_cast<std::uint8_t*>(std::malloc(8));
    }

private:
    std::uint32_t m_direction;
};

TEST_F(DeviceOperation, KeepsRegisterAndLengths) { EXPECT_EQ(hex("02 77 01"), AnyOperation(0).fields()); }

TEST_F(DeviceOperation, HasABufferOfMallocAndFreesItSo)
{
    // the platform checks each release
    AnyOperation operation(2);
    operation.takeBuffer();
}

TEST_F(DeviceOperation, WithoutMemoryHasNoBuffer)
{
    platform.failAllocation();
    Dp955xOps::ReadRegister operation(0x16, 4);
    EXPECT_EQ(nullptr, operation.getBuffer());
}

TEST_F(DeviceOperation, DirectionsAndLengthsOfBothKinds)
{
    // some lengths fill a heap block to its last byte
    for (unsigned dataLength = 0; dataLength <= 255; ++dataLength) {
        Dp955xOps::ReadRegister read(0x16, static_cast<std::uint8_t>(dataLength));
        Dp955xOps::WriteRegister write(0x16, static_cast<std::uint8_t>(dataLength));
        EXPECT_EQ(3U, read.getDirection());
        EXPECT_EQ(2U, write.getDirection());
        EXPECT_EQ(dataLength, read.getLength(1));
        EXPECT_EQ(0U, write.getLength(1));
        // all but the read phase
        for (const std::uint32_t phase : {0U, 2U, 3U, 0x80000001U}) {
            EXPECT_EQ(1U, read.getLength(phase));
            EXPECT_EQ(dataLength + 1, write.getLength(phase));
        }
        for (EdalDeviceOperation* operation :
             {static_cast<EdalDeviceOperation*>(&read), static_cast<EdalDeviceOperation*>(&write)}) {
            Bytes expected(dataLength + 1, 0);
            expected[0] = 0x16;
            ASSERT_LE(dataLength + 1, malloc_usable_size(operation->getBuffer()));
            EXPECT_EQ(expected, Bytes(operation->getBuffer(), operation->getBuffer() + dataLength + 1));
        }
    }
}

TEST_F(DeviceOperation, ReadSelectsTheDeviceWritesTheRegisterAndReadsToTheBuffersStart)
{
    Dp955xOps::ReadRegister operation(0x16, 4);
    platform.configures().writes().reads(hex("11 22 33 44"));
    device->setOperation(&operation);
    EXPECT_EQ(&operation, device->getOperation());
    EXPECT_EQ(nullptr, device->doOperation(handle));
    EXPECT_EQ(R"(
mern_iic_config(h1, 2, 3, 0xC0)
mern_iic_write(h1, 1 byte: 16)
mern_iic_read(h1, 4)
)",
              platform.calls());
    EXPECT_EQ(hex("11 22 33 44 00"), Bytes(operation.getBuffer(), operation.getBuffer() + 5));
}

TEST_F(DeviceOperation, WriteSendsRegisterAndDataInOneTransfer)
{
    Dp955xOps::WriteRegister operation(0x02, 2);
    operation.getBuffer()[1] = 0xAB;
    operation.getBuffer()[2] = 0xCD;
    platform.configures().writes();
    device->setOperation(&operation);
    EXPECT_EQ(nullptr, device->doOperation(handle));
    EXPECT_EQ(R"(
mern_iic_config(h1, 2, 3, 0xC0)
mern_iic_write(h1, 3 bytes: 02 ab cd)
)",
              platform.calls());
}

TEST_F(DeviceOperation, RunsThePhasesOfItsDirectionAlone)
{
    platform.healthy();
    const struct {
        std::uint32_t direction;
        const char* calls;
    } rows[] = {{0, "\nmern_iic_config(h1, 2, 3, 0xC0)\n"},
                {1, "\nmern_iic_config(h1, 2, 3, 0xC0)\nmern_iic_read(h1, 1)\n"},
                {2, "\nmern_iic_config(h1, 2, 3, 0xC0)\nmern_iic_write(h1, 2 bytes: 77 00)\n"},
                {3, "\nmern_iic_config(h1, 2, 3, 0xC0)\nmern_iic_write(h1, 2 bytes: 77 00)\nmern_iic_read(h1, 1)\n"},
                {4, "\nmern_iic_config(h1, 2, 3, 0xC0)\n"}};
    for (const auto& row : rows) {
        AnyOperation operation(row.direction);
        device->setOperation(&operation);
        platform.clearLog();
        EXPECT_EQ(nullptr, device->doOperation(handle));
        EXPECT_EQ(row.calls, platform.calls()) << row.direction;
        EXPECT_EQ("\n", platform.traces());
        ASSERT_LE(2U, platform.traceRecords().size()) << "entry and exit";
        EXPECT_EQ((std::vector<std::string>{"\"doOperation\""}), platform.traceRecords().front().arguments);
        EXPECT_EQ((std::vector<std::string>{"\"doOperation\""}), platform.traceRecords().back().arguments);
    }
}

TEST_F(DeviceOperation, SelectsTheDeviceByTheWholeAddress)
{
    device = std::make_unique<GenericEdalDevice>(0x89ABCDEF);
    AnyOperation operation(0);
    device->setOperation(&operation);
    platform.configures();
    EXPECT_EQ(nullptr, device->doOperation(handle));
    EXPECT_EQ(3U, platform.configs().at(0).item);
    EXPECT_EQ(word(0x89ABCDEF), platform.configs().at(0).value);
}

TEST_F(DeviceOperation, WithNoneSetIsRefused)
{
    AnyOperation operation(3);
    device->setOperation(&operation);
    device->setOperation(nullptr);
    EXPECT_EQ(nullptr, device->getOperation());
    const std::unique_ptr<ErrlEntry> entry{device->doOperation(handle)};
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ("\n", platform.layerCalls());
    EXPECT_EQ((std::vector<Src>{{.module = 38, .reason = 0x132B}}), platform.entry(1).srcs);
    EXPECT_EQ(0x8000132BU, platform.entry(1).returnCode);
    EXPECT_EQ((std::vector<Bytes>{text("kestdevice")}), platform.entry(1).details(2));
    EXPECT_EQ((std::vector<Callout>{{1, 4}}), platform.entry(1).callouts);
    const std::vector<std::string> traces = platform.lines(kindTrace);
    ASSERT_EQ(1U, traces.size());
    EXPECT_NE(std::string::npos, traces[0].find("\"doOperation\"")) << traces[0];
}

TEST_F(DeviceOperation, EachFailingPhaseEndsItAndIsNoted)
{
    const struct {
        // n-th layer call of the operation
        int failing;
        std::uint8_t module;
        std::uint16_t reason;
        std::uint32_t returnCode;
        // of the operation itself, without first-failure capture
        const char* calls;
    } rows[] = {
        {1, 12, 0x130E, 0x0000130E, "mern_iic_config(h1, 2, 3, 0xC0)\n"},
        {2, 18, 0x1314, 0x00001314, "mern_iic_config(h1, 2, 3, 0xC0)\nmern_iic_write(h1, 1 byte: 00)\n"},
        {3, 13, 0x1312, 0x00001312,
         "mern_iic_config(h1, 2, 3, 0xC0)\nmern_iic_write(h1, 1 byte: 00)\nmern_iic_read(h1, 2)\n"},
    };
    // a line for each phase
    std::set<int> sites;
    for (const auto& row : rows) {
        platform.reset();
        handle = platform.openHandle();
        platform.healthy().failCall(row.failing, EIO);
        Dp955xOps::ReadRegister operation(0x00, 2);
        device->setOperation(&operation);
        const std::unique_ptr<ErrlEntry> entry{device->doOperation(handle)};
        ASSERT_NE(nullptr, entry) << row.failing;
        const EntryRecord& record = platform.entry(1);
        ASSERT_EQ(1U, record.srcs.size());
        EXPECT_EQ(row.module, record.srcs[0].module);
        EXPECT_EQ(row.reason, record.srcs[0].reason);
        EXPECT_EQ(row.returnCode, record.returnCode);
        ASSERT_EQ(1U, record.softwareErrors.size()) << row.failing;
        EXPECT_EQ(row.returnCode, record.softwareErrors[0].returnCode);
        EXPECT_EQ(38, record.softwareErrors[0].word1);
        const auto& traces = platform.traceRecords();
        // before the exit
        const TraceRecord& last = traces.at(traces.size() - 2);
        EXPECT_EQ((std::vector<std::string>{"\"doOperation\""}), last.arguments);
        EXPECT_LT(traces.front().line, last.line) << "after the entry";
        EXPECT_EQ(last.line, record.softwareErrors[0].word2);
        EXPECT_TRUE(sites.insert(last.line).second) << row.failing;
        std::string calls = platform.layerCalls().substr(1);
        EXPECT_EQ(row.calls, calls.substr(0, calls.find("mern_iic_ffdc"))) << row.failing;
        // A failed read asks for the device's state, too; nothing else follows.
        const std::string after = row.failing == 3 ? "mern_iic_config(h1, 1, 15, 4 bytes)\n" : "";
        EXPECT_EQ("mern_iic_ffdc_extract(h1, 0)\nmern_iic_ffdc_unlock(h1, 0)\n" + after,
                  calls.substr(calls.find("mern_iic_ffdc")))
            << row.failing;
    }
    device->setOperation(nullptr);
}

} // namespace
