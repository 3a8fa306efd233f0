/// Register routines: registers and lengths by type, masks, and the calls around each routine with its clean-up.
#include "kest955x.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/platform/scripted.h"

using namespace scripted;
using namespace kest;

namespace
{

constexpr kest_dpOperation operationOf(std::uint32_t number) { return static_cast<kest_dpOperation>(number); }
constexpr kest_dpConfig configOf(std::uint32_t number) { return static_cast<kest_dpConfig>(number); }
constexpr kest_deviceType typeOf(std::uint32_t number) { return static_cast<kest_deviceType>(number); }

/// A request for one device at 0xC0 on /dev/i2c-1, local node.
class Registers : public PlatformTest
{
protected:
    Registers() { become(0x9552); }

    void become(std::uint32_t type)
    {
        node.type = typeOf(type);
        request = {.deviceInfo = &info, .deviceType = typeOf(type), .attributes = attributes.data()};
    }

    /// Forgets all calls so far and empties the script.
    void restart()
    {
        platform.reset();
        hubHandle = platform.openHandle();
    }

    /// Every call succeeds; reads return `inputs` in turn.
    void answering(std::vector<Bytes> inputs)
    {
        platform.healthy();
        platform.readHandler = [inputs, next = std::size_t{0}](std::uint8_t* buffer, unsigned size) mutable {
            const Bytes& input = next < inputs.size() ? inputs[next++] : Bytes{};
            EXPECT_EQ(input.size(), size);
            std::copy_n(input.begin(), std::min<std::size_t>(size, input.size()), buffer);
            return static_cast<int>(size);
        };
    }

    /// Traces whose only argument is the routine's name: entry, failures, exit.
    std::ptrdiff_t tracesNaming(const std::string& routine) const
    {
        return std::ranges::count_if(platform.traceRecords(), [&](const TraceRecord& record) {
            return record.format == " %s" && record.arguments.at(0) == '"' + routine + '"';
        });
    }

    /// Frees the entry that a call returned. @return whether there was one
    static bool failed(ErrlEntry* entry)
    {
        const std::unique_ptr<ErrlEntry> owned{entry};
        return owned != nullptr;
    }

    std::array<kest_attributeValue, 6> attributes{400, 1, 15, 1, 2, 1};
    char nodeName[2] = "L";
    char devicePath[11] = "/dev/i2c-1";
    kest_deviceAddress node{0xC0, KEST_DEV_9552, 0, nullptr};
    kest_deviceInfo info{nodeName, devicePath, &node};
    Dp955xRequest request{};
    // h1, the handle that a hub's reset uses
    mern_t hubHandle = platform.openHandle();
};

// --- calls around each routine ---

TEST_F(Registers, WriteReadsChangesAndWritesBackUnderTheLock)
{
    become(0x9551);
    answering({hex("00 00")});
    EXPECT_FALSE(failed(Write(&request, operationOf(1), 0x0001, 0)));
    EXPECT_EQ(R"(
MernInitialize(0x80000000)
mern_iic_open(node -1, "/dev/i2c-1", 0x1002)
mern_iic_config(h2, 2, 19, block: speed 400, address 0xC0, offset bytes 0, timeout 20000, write cycle 0, page 0, flags 0xFFFF0001, busy wait 1000)
mern_iic_config(h2, 2, 2, 0x190)
mern_iic_config(h2, 2, 17, kind 2, address 0xC0, timeout 500, big-endian)
mern_iic_config(h2, 2, 3, 0xC0)
mern_iic_write(h2, 1 byte: 15)
mern_iic_read(h2, 2)
mern_iic_config(h2, 2, 3, 0xC0)
mern_iic_write(h2, 3 bytes: 15 01 00)
mern_iic_config(h2, 2, 18, kind 2, address 0xC0, timeout 500, big-endian)
mern_iic_close(h2)
)",
              platform.calls());
    EXPECT_EQ("\n", platform.traces());
}

TEST_F(Registers, ReadTakesTheTwoInputRegistersOfA9552OneByOne)
{
    answering({hex("34"), hex("12")});
    std::uint32_t value = 0xFFFFFFFF;
    EXPECT_FALSE(failed(Read(&request, 0xFFFF, &value)));
    EXPECT_EQ(0x1234U, value);
    EXPECT_EQ(R"(
MernInitialize(0x80000000)
mern_iic_open(node -1, "/dev/i2c-1", 0x1002)
mern_iic_config(h2, 2, 19, block: speed 400, address 0xC0, offset bytes 0, timeout 20000, write cycle 0, page 0, flags 0xFFFF0001, busy wait 1000)
mern_iic_config(h2, 2, 2, 0x190)
mern_iic_config(h2, 2, 17, kind 2, address 0xC0, timeout 500, big-endian)
mern_iic_config(h2, 2, 3, 0xC0)
mern_iic_write(h2, 1 byte: 00)
mern_iic_read(h2, 1)
mern_iic_config(h2, 2, 3, 0xC0)
mern_iic_write(h2, 1 byte: 01)
mern_iic_read(h2, 1)
mern_iic_config(h2, 2, 18, kind 2, address 0xC0, timeout 500, big-endian)
mern_iic_close(h2)
)",
              platform.calls());
}

TEST_F(Registers, HubResetRunsOnTheCallersHandleWithoutLockSpeedOpenOrClose)
{
    answering({hex("FF FF FF FF")});
    EXPECT_FALSE(failed(Write_922Hub_Reset(&request, operationOf(0), 0x8000, 0, &hubHandle)));
    EXPECT_EQ(R"(
mern_iic_config(h1, 2, 19, block: speed 400, address 0xC0, offset bytes 0, timeout 20000, write cycle 0, page 0, flags 0xFFFF0001, busy wait 1000)
mern_iic_config(h1, 2, 3, 0xC0)
mern_iic_write(h1, 1 byte: 16)
mern_iic_read(h1, 4)
mern_iic_config(h1, 2, 3, 0xC0)
mern_iic_write(h1, 5 bytes: 16 ff ff ff 3f)
)",
              platform.calls());
}

TEST_F(Registers, RawConfigWritesOneRegisterWithoutReading)
{
    platform.healthy();
    EXPECT_FALSE(failed(RawConfig(&request, configOf(3), 0xABCD)));
    EXPECT_EQ(R"(
MernInitialize(0x80000000)
mern_iic_open(node -1, "/dev/i2c-1", 0x1002)
mern_iic_config(h2, 2, 19, block: speed 400, address 0xC0, offset bytes 0, timeout 20000, write cycle 0, page 0, flags 0xFFFF0001, busy wait 1000)
mern_iic_config(h2, 2, 2, 0x190)
mern_iic_config(h2, 2, 17, kind 2, address 0xC0, timeout 500, big-endian)
mern_iic_config(h2, 2, 3, 0xC0)
mern_iic_write(h2, 2 bytes: 03 cd)
mern_iic_config(h2, 2, 18, kind 2, address 0xC0, timeout 500, big-endian)
mern_iic_close(h2)
)",
              platform.calls());
}

TEST_F(Registers, AttributesGiveTheSpeedAndTheBlocksFlag)
{
    attributes = {100, 1, 15, 1, 2, 3};
    platform.healthy();
    EXPECT_FALSE(failed(RawConfig(&request, configOf(2), 0)));
    EXPECT_NE(std::string::npos, platform.layerCalls().find("flags 0xFFFF0002, busy wait 1000)\n"
                                                            "mern_iic_config(h2, 2, 2, 0x64)\n"))
        << platform.layerCalls();
}

TEST_F(Registers, InputDevicesTimeOutFollowsFromTheAttributes)
{
    for (const std::uint32_t type : {0x75U, 0x92U}) {
        restart();
        become(type);
        answering({hex("00 00")});
        std::uint32_t value = 0xFFFFFFFF;
        EXPECT_FALSE(failed(Read(&request, 0xFFFF, &value)));
        // one block of 32 bytes at 400 kHz: (2 * 16 + 1000) * 2
        EXPECT_NE(std::string::npos, platform.layerCalls().find("address 0xC0, offset bytes 0, timeout 2064, "))
            << platform.layerCalls();
    }
}

TEST_F(Registers, EachRoutineTracesItsEntryAndExit)
{
    platform.healthy();
    std::uint32_t value = 0;
    become(0x9554);
    EXPECT_FALSE(failed(Write(&request, operationOf(0), 0, 0)));
    EXPECT_FALSE(failed(Read(&request, 0, &value)));
    EXPECT_FALSE(failed(GeneralConfig(&request, configOf(0), 0)));
    EXPECT_FALSE(failed(RawConfig(&request, configOf(6), 0)));
    EXPECT_FALSE(failed(Write_922Hub_Reset(&request, operationOf(0), 0, 0, &hubHandle)));
    std::map<std::string, int> scopes;
    for (const TraceRecord& record : platform.traceRecords()) {
        ++scopes[record.arguments.at(0)];
    }
    for (const char* name : {"\"Write\"", "\"Read\"", "\"GeneralConfig\"", "\"RawConfig\"", "\"Write_922Hub_Reset\""}) {
        EXPECT_EQ(2, scopes[name]) << name;
    }
}

// --- registers and lengths by type ---

TEST_F(Registers, OutputRegistersByType)
{
    const struct {
        std::uint32_t type;
        const char* state;
        const char* select;
        // operation 3 on pin 0: selector 10, or output 0
        const char* written;
    } rows[] = {{0x9551, "55 55", "15", "15 56 55"},
                {0x9552, "55 55 55 55", "16", "16 56 55 55 55"},
                {0x9554, "FF", "01", "01 FE"},
                {0x9555, "FF FF", "02", "02 FE FF"}};
    for (const auto& row : rows) {
        for (const bool onHubsHandle : {false, true}) {
            restart();
            become(row.type);
            answering({hex(row.state)});
            EXPECT_FALSE(failed(onHubsHandle ? Write_922Hub_Reset(&request, operationOf(3), 1, 0, &hubHandle)
                                             : Write(&request, operationOf(3), 1, 0)));
            EXPECT_EQ((std::vector<Bytes>{hex(row.select), hex(row.written)}), platform.written())
                << std::hex << row.type;
        }
    }
}

TEST_F(Registers, InputRegistersByType)
{
    const struct {
        std::uint32_t type;
        std::vector<Bytes> inputs;
        std::vector<Bytes> selected;
        // under 0xFFFF and 0x0FF0
        std::uint32_t value, masked;
    } rows[] = {
        {0x9551, {hex("A5")}, {hex("00")}, 0x00A5, 0x00A0},
        {0x9552, {hex("A5"), hex("3C")}, {hex("00"), hex("01")}, 0x3CA5, 0x0CA0},
        {0x9554, {hex("A5")}, {hex("00")}, 0x00A5, 0x00A0},
        {0x9555, {hex("A5 3C")}, {hex("00")}, 0x3CA5, 0x0CA0},
        // 0x3412 under 0x0FF0 is 0x0410: masked first, then swapped
        {0x75, {hex("12 34")}, {hex("00")}, 0x1234, 0x1004},
        {0x92, {hex("12 34")}, {hex("00")}, 0x1234, 0x1004},
    };
    for (const auto& row : rows) {
        for (const bool masked : {false, true}) {
            restart();
            become(row.type);
            answering(row.inputs);
            std::uint32_t value = 0xFFFFFFFF;
            EXPECT_FALSE(failed(Read(&request, masked ? 0x0FF0 : 0xFFFF, &value)));
            EXPECT_EQ(masked ? row.masked : row.value, value) << std::hex << row.type;
            EXPECT_EQ(row.selected, platform.written());
        }
    }
}

TEST_F(Registers, DirectionRegistersByType)
{
    const struct {
        std::uint32_t type;
        const char* state;
        std::uint32_t config, bits;
        const char* select;
        const char* written;
    } rows[] = {{0x9554, "0F", 0, 0x30, "03", "03 3F"},         {0x9554, "0F", 1, 0x31, "03", "03 0E"},
                {0x9554, "0F", 2, 0xFF, "03", "03 0F"}, // unknown: unchanged
                {0x9555, "0F F0", 0, 0x0130, "06", "06 3F F1"}, {0x9555, "0F F0", 1, 0x1031, "06", "06 0E E0"},
                {0x9555, "0F F0", 9, 0xFFFF, "06", "06 0F F0"}};
    for (const auto& row : rows) {
        restart();
        become(row.type);
        answering({hex(row.state)});
        EXPECT_FALSE(failed(GeneralConfig(&request, configOf(row.config), row.bits)));
        EXPECT_EQ((std::vector<Bytes>{hex(row.select), hex(row.written)}), platform.written())
            << std::hex << row.type << " config " << row.config;
    }
}

TEST_F(Registers, LedDriversHaveNoDirections)
{
    for (const std::uint32_t type : {0x9551U, 0x9552U}) {
        for (const std::uint32_t config : {0U, 1U, 2U}) {
            restart();
            become(type);
            EXPECT_FALSE(failed(GeneralConfig(&request, configOf(config), 0xFFFF)));
            EXPECT_EQ("\n", platform.calls());
            const auto& traces = platform.traceRecords();
            ASSERT_EQ(3U, traces.size());
            EXPECT_EQ(" %s,%x", traces[1].format);
            EXPECT_EQ((std::vector<std::string>{"\"GeneralConfig\"", type == 0x9551 ? "0x9551" : "0x9552"}),
                      traces[1].arguments);
        }
    }
}

TEST_F(Registers, RawRegistersByTypeAndConfig)
{
    constexpr int none = 0xFF;
    const struct {
        std::uint32_t type;
        // by config
        std::array<int, 8> registers;
    } rows[] = {{0x9551, {none, none, 0x01, 0x02, 0x03, 0x04, none, none}},
                {0x9552, {none, none, 0x02, 0x03, 0x04, 0x05, none, none}},
                {0x9554, {none, none, none, none, none, none, 0x02, none}},
                {0x9555, {none, none, none, none, none, none, 0x04, 0x05}},
                {0x75, {none, none, none, none, none, none, none, none}},
                {0x92, {none, none, none, none, none, none, none, none}},
                {0xD10, {none, none, none, none, none, none, none, none}}};
    for (const auto& row : rows) {
        for (const std::uint32_t config : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 255U, 0x80000002U, 0xFFFFFFFFU}) {
            restart();
            become(row.type);
            platform.healthy();
            const std::unique_ptr<ErrlEntry> entry{RawConfig(&request, configOf(config), 0x1A5)};
            const int expected = config < 8 ? row.registers[config] : none;
            SCOPED_TRACE(testing::Message() << std::hex << row.type << " config " << config);
            if (expected != none) {
                EXPECT_EQ(nullptr, entry);
                EXPECT_EQ((std::vector<Bytes>{{static_cast<std::uint8_t>(expected), 0xA5}}), platform.written());
                continue;
            }
            ASSERT_NE(nullptr, entry);
            EXPECT_TRUE(platform.written().empty());
            const EntryRecord& record = platform.entry(entry.get());
            ASSERT_EQ(1U, record.srcs.size());
            EXPECT_NE(0U, record.srcs[0].word1) << "source line";
            EXPECT_EQ(
                (Src{
                    .module = 36, .reason = 0x132D, .word1 = record.srcs[0].word1, .word2 = row.type, .word3 = config}),
                record.srcs[0]);
            EXPECT_EQ(0x8000132DU, record.returnCode);
            EXPECT_TRUE(record.callouts.empty());
            EXPECT_EQ((std::vector<Bytes>{text("kest955x")}), record.details(2));
            // entry, failure, exit
            EXPECT_EQ(3, tracesNaming("RawConfig"));
            // The device is locked, unlocked and closed nevertheless.
            EXPECT_EQ(0, platform.openHandles());
            EXPECT_EQ(18U, platform.configs().at(platform.configs().size() - 1).item);
        }
    }
}

TEST_F(Registers, UnlistedTypesAreReportedAndServedWithRegister0AndNoData)
{
    std::uint32_t value = 0xFFFFFFFF;
    const struct {
        std::function<ErrlEntry*()> call;
        const char* name;
        std::uint8_t module;
        std::uint32_t type;
        std::vector<Bytes> written;
    } rows[] = {
        {[&] { return Write(&request, operationOf(1), 0xFFFF, 0); }, "Write", 25, 0x75, {hex("00"), hex("00")}},
        {[&] { return Write(&request, operationOf(1), 0xFFFF, 0); }, "Write", 25, 0xD10, {hex("00"), hex("00")}},
        {[&] { return Read(&request, 0xFFFF, &value); }, "Read", 24, 0xD10, {hex("00")}},
        {[&] { return GeneralConfig(&request, configOf(0), 0xFFFF); },
         "GeneralConfig",
         35,
         0x92,
         {hex("00"), hex("00")}},
        {[&] { return Write_922Hub_Reset(&request, operationOf(4), 0xFFFF, 0, &hubHandle); },
         "Write_922Hub_Reset",
         37,
         0x92,
         {hex("00"), hex("00")}},
    };
    for (const auto& row : rows) {
        restart();
        become(row.type);
        platform.healthy();
        const std::unique_ptr<ErrlEntry> entry{row.call()};
        ASSERT_NE(nullptr, entry);
        const EntryRecord& record = platform.entry(entry.get());
        ASSERT_EQ(1U, record.srcs.size());
        EXPECT_NE(0U, record.srcs[0].word1) << "source line";
        EXPECT_EQ((Src{.module = row.module, .reason = 0x132C, .word1 = record.srcs[0].word1, .word2 = row.type}),
                  record.srcs[0]);
        EXPECT_EQ(0x8000132CU, record.returnCode);
        EXPECT_EQ((std::vector<Bytes>{text("kest955x")}), record.details(2));
        // entry, failure, exit
        EXPECT_EQ(3, tracesNaming(row.name)) << row.name;
        EXPECT_EQ(row.written, platform.written());
        EXPECT_NE(std::string::npos,
                  platform.layerCalls().find("mern_iic_read(h" + std::string(row.module == 37 ? "1" : "2") + ", 0)"));
    }
    EXPECT_EQ(0U, value);
}

// --- masks ---

TEST_F(Registers, OperationsOnSelectorsAndOutputs)
{
    const struct {
        std::uint32_t type, operation, bits, mask;
        const char* before;
        const char* after;
    } rows[] = {
        // selectors of pins 0-3 are 00, 01, 10, 11; pins 0-3 become the operation's
        {0x9551, 0, 0x0F, 0x00, "E4 00", "15 00 00"},
        {0x9551, 1, 0x0F, 0x00, "E4 00", "15 55 00"},
        {0x9551, 3, 0x0F, 0x00, "E4 00", "15 AA 00"},
        {0x9551, 4, 0x0F, 0x00, "E4 00", "15 FF 00"},
        // copy: low bits of pins 0-3 become 1, 0, 1, 0; high bits stay 0, 0, 1, 1; bit 4 is not masked
        {0x9551, 2, 0x15, 0x0F, "E4 00", "15 B1 00"},
        {0x9551, 5, 0xFF, 0xFF, "E4 1B", "15 E4 1B"},
        {0x9551, 0xFFFFFFFF, 0xFF, 0xFF, "E4 1B", "15 E4 1B"},
        // the eighth pin, and bits beyond the device
        {0x9551, 4, 0x80, 0x00, "00 00", "15 00 C0"},
        {0x9551, 4, 0xFFFFFF00, 0x00, "E4 1B", "15 E4 1B"},
        {0x9552, 1, 0x8001, 0x00, "00 00 00 00", "16 01 00 00 40"},
        {0x9552, 3, 0x0180, 0x00, "00 00 00 00", "16 00 80 02 00"},
        {0x9552, 0, 0xFFFF, 0x00, "12 34 56 78", "16 00 00 00 00"},
        {0x9552, 2, 0xFFFF, 0xFF00, "AA AA AA AA", "16 AA AA FF FF"},
        {0x9552, 4, 0xFFFF0000, 0x00, "12 34 56 78", "16 12 34 56 78"},
        // outputs have no high bit: 0 and 3 clear, 1 and 4 set
        {0x9554, 0, 0x0F, 0x00, "FF", "01 F0"},
        {0x9554, 1, 0x0F, 0x00, "C0", "01 CF"},
        {0x9554, 2, 0x5A, 0x0F, "C3", "01 CA"},
        {0x9554, 3, 0x0F, 0x00, "FF", "01 F0"},
        {0x9554, 4, 0x0F, 0x00, "C0", "01 CF"},
        {0x9554, 5, 0x0F, 0x0F, "C0", "01 C0"},
        {0x9555, 1, 0x8001, 0x00, "10 20", "02 11 A0"},
        {0x9555, 2, 0x1234, 0xFF00, "56 78", "02 56 12"},
    };
    for (const auto& row : rows) {
        restart();
        become(row.type);
        answering({hex(row.before)});
        EXPECT_FALSE(failed(Write(&request, operationOf(row.operation), row.bits, row.mask)));
        EXPECT_EQ(hex(row.after), platform.written().at(1)) << std::hex << row.type << " operation " << row.operation;
    }
}

/// A model of one pin of a device, without masks.
struct Pin {
    bool low, high;
};

/// The effect of an operation on one pin. `bit` and `selected` are the pin's bits in the two arguments.
Pin modelled(Pin pin, std::uint32_t operation, bool bit, bool selected)
{
    switch (operation) {
    case 0:
        return bit ? Pin{false, false} : pin;
    case 1:
        return bit ? Pin{true, false} : pin;
    case 2:
        return selected ? Pin{bit, pin.high} : pin;
    case 3:
        return bit ? Pin{false, true} : pin;
    case 4:
        return bit ? Pin{true, true} : pin;
    default:
        return pin;
    }
}

bool bitAt(const Bytes& bytes, unsigned bit) { return (bytes.at(bit / 8) >> (bit % 8) & 1) != 0; }

void putBit(Bytes& bytes, unsigned bit, bool value)
{
    std::uint8_t& byte = bytes.at(bit / 8);
    byte = static_cast<std::uint8_t>(value ? byte | 1 << bit % 8 : byte & ~(1 << bit % 8));
}

/// The whole device: two bits a pin on LED drivers (`selectors`), one on expanders.
Bytes modelledDevice(const Bytes& before, bool selectors, std::uint32_t operation, std::uint32_t bits,
                     std::uint32_t mask)
{
    Bytes after = before;
    const unsigned width = selectors ? 2 : 1;
    for (unsigned pin = 0; pin < before.size() * 8 / width; ++pin) {
        const Pin old{bitAt(before, pin * width), selectors && bitAt(before, pin * width + 1)};
        const Pin now = modelled(old, operation, (bits >> pin & 1) != 0, (mask >> pin & 1) != 0);
        putBit(after, pin * width, now.low);
        if (selectors) {
            putBit(after, pin * width + 1, now.high);
        }
    }
    return after;
}

/// The same cases in every run.
std::mt19937 repeatable(std::uint32_t seed) { return std::mt19937(seed); }

TEST_F(Registers, RandomChangesAgreeWithABitByBitModel)
{
    const struct {
        std::uint32_t type;
        unsigned bytes;
        bool selectors;
        std::uint8_t registerByte;
    } devices[] = {
        {0x9551, 2, true, 0x15}, {0x9552, 4, true, 0x16}, {0x9554, 1, false, 0x01}, {0x9555, 2, false, 0x02}};
    std::mt19937 random = repeatable(20240607);
    for (int round = 0; round < 2000; ++round) {
        const auto& device = devices[random() % 4];
        const std::uint32_t operation = static_cast<std::uint32_t>(random()) % 7;
        const std::uint32_t bits = static_cast<std::uint32_t>(random()) & (random() % 2 == 0 ? 0xFFFF : 0xFFFFFFFF);
        const std::uint32_t mask = static_cast<std::uint32_t>(random()) & (random() % 2 == 0 ? 0xFFFF : 0xFFFFFFFF);
        Bytes before(device.bytes);
        for (std::uint8_t& byte : before) {
            byte = static_cast<std::uint8_t>(random());
        }
        restart();
        become(device.type);
        answering({before});
        ASSERT_FALSE(failed(random() % 2 == 0
                                ? Write(&request, operationOf(operation), bits, mask)
                                : Write_922Hub_Reset(&request, operationOf(operation), bits, mask, &hubHandle)));
        Bytes expected = modelledDevice(before, device.selectors, operation, bits, mask);
        expected.insert(expected.begin(), device.registerByte);
        ASSERT_EQ(expected, platform.written().at(1))
            << std::hex << device.type << " operation " << operation << " bits " << bits << " mask " << mask;
    }
}

TEST_F(Registers, RandomDirectionsAgreeWithABitByBitModel)
{
    std::mt19937 random = repeatable(19990101);
    for (int round = 0; round < 500; ++round) {
        const bool wide = random() % 2 == 0;
        const std::uint32_t config = static_cast<std::uint32_t>(random()) % 3;
        const auto bits = static_cast<std::uint32_t>(random());
        Bytes before(wide ? 2 : 1);
        for (std::uint8_t& byte : before) {
            byte = static_cast<std::uint8_t>(random());
        }
        Bytes expected = before;
        for (unsigned pin = 0; pin < before.size() * 8; ++pin) {
            if (config < 2 && (bits >> pin & 1) != 0) {
                putBit(expected, pin, config == 0);
            }
        }
        expected.insert(expected.begin(), wide ? 0x06 : 0x03);
        restart();
        become(wide ? 0x9555 : 0x9554);
        answering({before});
        ASSERT_FALSE(failed(GeneralConfig(&request, configOf(config), bits)));
        ASSERT_EQ(expected, platform.written().at(1)) << config << " bits " << std::hex << bits;
    }
}

TEST_F(Registers, RandomInputsAgreeWithABitByBitModel)
{
    std::mt19937 random = repeatable(4711);
    for (int round = 0; round < 500; ++round) {
        const std::uint32_t types[] = {0x9551, 0x9552, 0x9554, 0x9555, 0x75, 0x92};
        const std::uint32_t type = types[random() % 6];
        const auto mask = static_cast<std::uint32_t>(random());
        const bool wide = type != 0x9551 && type != 0x9554;
        const bool swapped = type < 0x100;
        Bytes input(wide ? 2 : 1);
        for (std::uint8_t& byte : input) {
            byte = static_cast<std::uint8_t>(random());
        }
        std::uint32_t expected = 0;
        for (unsigned bit = 0; bit < input.size() * 8; ++bit) {
            if (bitAt(input, bit) && (mask >> bit & 1) != 0) {
                expected |= 1U << (swapped ? (bit + 8) % 16 : bit);
            }
        }
        restart();
        become(type);
        answering(type == 0x9552 ? std::vector<Bytes>{{input[0]}, {input[1]}} : std::vector<Bytes>{input});
        std::uint32_t value = 0xFFFFFFFF;
        ASSERT_FALSE(failed(Read(&request, mask, &value)));
        ASSERT_EQ(expected, value) << std::hex << type << " mask " << mask;
    }
}

// --- failures ---

/// A routine and its steps on the bus.
struct Routine {
    const char* name;
    std::uint8_t module;
    std::string steps; ///< open, block, speed, lock; then target, write and read of each operation
    std::function<ErrlEntry*(Dp955xRequest*)> call;
};

std::vector<Routine> framedRoutines()
{
    static std::uint32_t value = 0;
    return {{"Read", 24, "obsltwrtwr", [](Dp955xRequest* request) { return Read(request, 0xFFFF, &value); }},
            {"Write", 25, "obsltwrtw", [](Dp955xRequest* request) { return Write(request, operationOf(1), 1, 0); }},
            {"RawConfig", 36, "obsltw", [](Dp955xRequest* request) { return RawConfig(request, configOf(2), 1); }},
            {"GeneralConfig", 35, "obsltwrtw", [](Dp955xRequest* request) {
                 request->deviceType = KEST_DEV_9554;
                 return GeneralConfig(request, configOf(0), 1);
             }}};
}

/// A step on the bus: how its failure with EIO is reported, and how its outcomes are scripted.
struct BusStep {
    std::pair<int, int> reported; ///< module and reason
    void (*succeeds)(Platform&, const Bytes& input);
    void (*fails)(Platform&);
};

const BusStep& busStep(char step)
{
    static const std::map<char, BusStep> steps{
        {'o', // without a handle there is nothing to capture
         {{11, 0x130C}, [](Platform& p, const Bytes&) { p.opens(); }, [](Platform& p) { p.failsOpen(EIO); }}},
        {'w',
         {{18, 0x1314},
          [](Platform& p, const Bytes&) { p.writes(); },
          [](Platform& p) { p.failsWrite(EIO).capturesFfdc(); }}},
        {'r', // the detect state is asked for
         {{13, 0x1312},
          [](Platform& p, const Bytes& input) { p.reads(input); },
          [](Platform& p) { p.failsRead(EIO).capturesFfdc().configuresReading(word(3)); }}},
        {'c',
         {{19, 0x1317},
          [](Platform& p, const Bytes&) { p.closes(); },
          [](Platform& p) { p.failsClose(EIO).capturesFfdc(); }}},
    };
    static const BusStep configuration{{12, 0x130E},
                                       [](Platform& p, const Bytes&) { p.configures(); },
                                       [](Platform& p) { p.failsConfig(EIO).capturesFfdc(); }};
    const auto found = steps.find(step);
    return found == steps.end() ? configuration : found->second;
}

/// One run of a routine: the step that fails, and the steps of the clean-up that also fail.
struct FailingRun {
    Routine routine;
    std::size_t step; ///< the number of steps: none fails
    bool unlockFails, closeFails;

    bool opened() const { return step > 0; }
    bool locked() const { return step > 3; }
    bool possible() const { return (locked() || !unlockFails) && (opened() || !closeFails); }
    bool inStep() const { return step < routine.steps.size(); }
    std::string failures() const ///< in the order in which they fail
    {
        return (inStep() ? routine.steps.substr(step, 1) : "") + (unlockFails ? "u" : "") + (closeFails ? "c" : "");
    }
    void script(Platform& platform) const
    {
        const Bytes input(routine.module == 25 ? 4 : 1, 0);
        for (const char done : routine.steps.substr(0, step)) {
            busStep(done).succeeds(platform, input);
        }
        if (inStep()) {
            busStep(routine.steps[step]).fails(platform);
        }
        if (locked()) {
            unlockFails ? busStep('u').fails(platform) : busStep('u').succeeds(platform, {});
        }
        if (opened()) {
            closeFails ? busStep('c').fails(platform) : busStep('c').succeeds(platform, {});
        }
    }
};

std::vector<FailingRun> failingRuns()
{
    std::vector<FailingRun> runs;
    for (const Routine& routine : framedRoutines()) {
        for (std::size_t step = 0; step <= routine.steps.size(); ++step) {
            for (const int late : {0, 1, 2, 3}) {
                runs.push_back({routine, step, (late & 1) != 0, (late & 2) != 0});
            }
        }
    }
    std::erase_if(runs, [](const FailingRun& run) { return !run.possible(); });
    return runs;
}

/// The returned entry. It names the step that failed, but not a clean-up step that is the only failure.
void expectFirst(const FailingRun& run, const EntryRecord& entry)
{
    ASSERT_EQ(1U, entry.srcs.size());
    EXPECT_EQ(busStep(run.failures()[0]).reported, (std::pair<int, int>{entry.srcs[0].module, entry.srcs[0].reason}));
    EXPECT_TRUE(entry.commits.empty());
    const bool inOperation = run.inStep() && run.step > 3;
    ASSERT_EQ(run.inStep() ? (inOperation ? 2U : 1U) : 0U, entry.softwareErrors.size());
    if (run.inStep()) {
        EXPECT_EQ(run.routine.module, entry.softwareErrors.back().word1);
        EXPECT_NE(0, entry.softwareErrors.back().word2);
        EXPECT_EQ(entry.returnCode, entry.softwareErrors.back().returnCode);
    }
}

/// Later failures are committed for service, in their order.
void expectLater(const FailingRun& run, const Platform& platform)
{
    std::vector<std::pair<int, int>> expected, committed;
    for (const char step : run.failures().substr(1)) {
        expected.push_back(busStep(step).reported);
    }
    for (int number = 1; number <= platform.entryCount(); ++number) {
        const EntryRecord& record = platform.entry(number);
        if (record.commits == std::vector<Commit>{{0x1300, 0x4000}} && record.srcs.at(0).module != 41) {
            committed.emplace_back(record.srcs.at(0).module, record.srcs.at(0).reason);
            EXPECT_TRUE(record.deleted);
        }
    }
    EXPECT_EQ(expected, committed);
    // A lock that could not be released is reported again when the device is destroyed.
    EXPECT_EQ(static_cast<int>(expected.size()) + (run.unlockFails ? 1 : 0), platform.commits());
}

/// Every step fails, with and without failures of the unlock and the close after it.
TEST_F(Registers, FirstFailureIsReturnedAndLaterOnesAreCommitted)
{
    const std::vector<FailingRun> runs = failingRuns();
    EXPECT_EQ(116U, runs.size());
    for (const FailingRun& run : runs) {
        SCOPED_TRACE(testing::Message() << run.routine.name << " step " << run.step << " fails: " << run.failures());
        restart();
        become(0x9552);
        run.script(platform);
        const std::unique_ptr<ErrlEntry> entry{run.routine.call(&request)};
        ASSERT_EQ(!run.failures().empty(), entry != nullptr);
        EXPECT_EQ(0, platform.openHandles());
        EXPECT_EQ(0, platform.heldLocks());
        if (entry) {
            expectFirst(run, platform.entry(entry.get()));
            expectLater(run, platform);
        } else {
            EXPECT_EQ(0, platform.entryCount());
        }
    }
}

/// Open, block, speed and lock: the site says which of them failed.
TEST_F(Registers, EachStepBeforeTheOperationHasASiteOfItsOwn)
{
    std::set<unsigned int> sites;
    for (std::size_t step = 0; step < 4; ++step) {
        restart();
        become(0x9552);
        const FailingRun run{framedRoutines().at(0), step, false, false};
        run.script(platform);
        const std::unique_ptr<ErrlEntry> entry{run.routine.call(&request)};
        ASSERT_NE(nullptr, entry) << step;
        sites.insert(platform.entry(entry.get()).softwareErrors.back().word2);
    }
    EXPECT_EQ(4U, sites.size());
}

TEST_F(Registers, EntryOfAFailedCleanUpIsTakenOverByANewOne)
{
    become(0x9552);
    platform.opens().configures(4).writes().failsConfig(EIO).capturesFfdc().failsClose(ENODEV).capturesFfdc();
    const std::unique_ptr<ErrlEntry> entry{RawConfig(&request, configOf(2), 1)};
    ASSERT_NE(nullptr, entry);
    const std::string calls = platform.log(kindEntry);
    // entry1 is from the unlock, entry2 takes it over, entry3 is from the close
    EXPECT_EQ(R"(
entry1 = ErrlEntry(0x1300, 0x20, 0, 0xB1, 0, 12, 0x43FF, 0x130E, 0x5, 0x2, 0x12, 0x0, 0x55, 0)
entry1.CollectTrace("IIC", 500)
entry1.CollectTrace("kest", 500)
entry1.addUsrDtls("kestwobu", 0x1300, 1, 2)
entry1.setRC(0x130E)
entry1.addProcedureCallout(1, 4)
entry2 = ErrlEntry(0x1300, 0x20, 0, 0xB1, 0, 0, 0x43FF, 0x0, 0x0, 0x0, 0x0, 0x0, 0x81, 0)
entry2 = copy of entry1
delete entry1
entry3 = ErrlEntry(0x1300, 0x20, 0, 0xB1, 0, 19, 0x43FF, 0x1317, 0x13, 0x0, 0x0, 0x0, 0x81, 0)
entry3.CollectTrace("IIC", 500)
entry3.CollectTrace("kest", 500)
entry3.addUsrDtls("kestwobu", 0x1300, 1, 2)
entry3.setRC(0x80001317)
entry3.addProcedureCallout(1, 4)
entry3.commit(0x1300, 0x4000)
delete entry3
)",
              calls.substr(0, calls.find("entry4")));
    EXPECT_EQ(entry.get() == nullptr ? 0 : 2, platform.entry(entry.get()).number);
    // the device, still locked when it is destroyed
    EXPECT_EQ(41, platform.entry(4).srcs.at(0).module);
}

TEST_F(Registers, FailureIsNotedAfterTheDeviceIsGone)
{
    platform.opens().configures(4).failsWrite(EIO).capturesFfdc().failsConfig(EIO).capturesFfdc().closes();
    const std::unique_ptr<ErrlEntry> entry{RawConfig(&request, configOf(2), 1)};
    ASSERT_NE(nullptr, entry);
    // entry1 is from the write, entry2 from the unlock, entry3 from the device, which is still locked when it is
    // destroyed
    const std::string calls = platform.log(kindEntry);
    EXPECT_NE(std::string::npos, calls.find("delete entry3\nentry1.addSwErr(0x1300, 0x1314, 36, ")) << calls;
}

TEST_F(Registers, FailuresAreTracedUnderTheRoutinesName)
{
    for (const Routine& routine : framedRoutines()) {
        restart();
        become(0x9552);
        // the speed
        platform.healthy().failCall(3, EIO);
        EXPECT_TRUE(failed(routine.call(&request)));
        // entry, failure, exit
        EXPECT_EQ(3, tracesNaming(routine.name)) << routine.name;
    }
}

TEST_F(Registers, HubResetFailingAtAnyStepLeavesTheHandleOpen)
{
    const std::string steps = "btwrtw";
    for (std::size_t failing = 0; failing < steps.size(); ++failing) {
        restart();
        become(0x9552);
        for (std::size_t step = 0; step < failing; ++step) {
            busStep(steps[step]).succeeds(platform, hex("00 00 00 00"));
        }
        busStep(steps[failing]).fails(platform);
        const std::unique_ptr<ErrlEntry> entry{Write_922Hub_Reset(&request, operationOf(1), 0x8000, 0, &hubHandle)};
        ASSERT_NE(nullptr, entry) << failing;
        const EntryRecord& record = platform.entry(entry.get());
        EXPECT_EQ(busStep(steps[failing]).reported,
                  (std::pair<int, int>{record.srcs.at(0).module, record.srcs.at(0).reason}));
        ASSERT_FALSE(record.softwareErrors.empty());
        EXPECT_EQ(37, record.softwareErrors.back().word1);
        EXPECT_EQ(std::string::npos, platform.calls().find("mern_iic_close"));
        EXPECT_EQ(0, platform.commits());
    }
}

TEST_F(Registers, ReadThatFailsLeavesOrHalvesTheValue)
{
    std::uint32_t value = 0xCAFE0000;
    // the first read
    platform.healthy().failCall(7, EIO);
    EXPECT_TRUE(failed(Read(&request, 0xFFFF, &value)));
    EXPECT_EQ(0xCAFE0000U, value);
    restart();
    // the second
    platform.healthy().failCall(10, EIO);
    EXPECT_TRUE(failed(Read(&request, 0, &value)));
    EXPECT_EQ(0x5AU, value);
}

TEST_F(Registers, ReadThatLeavesNoEntryGoesOnWithTheRegisterByte)
{
    for (const bool committed : {true, false}) {
        restart();
        become(0x9551);
        platform.opens().configures(4).writes().failsRead(committed ? EDEADLK : EIO).capturesFfdc();
        platform.configures().writes().configures().closes();
        if (!committed) {
            platform.failEntryAllocation();
        }
        EXPECT_FALSE(failed(Write(&request, operationOf(4), 0x0001, 0)));
        // the selectors read are 0x0015: pins 0, 1 and 2 are off; pin 0 is made to blink
        EXPECT_EQ((std::vector<Bytes>{hex("15"), hex("15 17 00")}), platform.written());
        EXPECT_EQ(committed ? 1 : 0, platform.commits());
    }
}

TEST_F(Registers, TheByteBehindTheDataIsNoPartOfTheValue)
{
    for (const auto& [type, bytes] : {std::pair{0x9551U, 1U}, {0x9554U, 1U}, {0x9555U, 2U}, {0x75U, 2U}}) {
        restart();
        become(type);
        platform.healthy();
        platform.readHandler = [bytes = bytes](std::uint8_t* buffer, unsigned size) {
            EXPECT_EQ(bytes, size);
            // the buffer has room for the register byte, too
            std::fill_n(buffer, size + 1, std::uint8_t{0xFF});
            return static_cast<int>(size);
        };
        std::uint32_t value = 0;
        EXPECT_FALSE(failed(Read(&request, 0xFFFFFFFF, &value)));
        EXPECT_EQ(bytes == 1 ? 0xFFU : 0xFFFFU, value) << type;
    }
}

TEST_F(Registers, WithoutADeviceInfoNothingIsTouched)
{
    request.deviceInfo = nullptr;
    std::uint32_t value = 0xCAFE;
    const struct {
        std::function<ErrlEntry*()> call;
        std::uint8_t module;
        const char* name;
    } rows[] = {
        {[&] { return Read(&request, 0xFFFF, &value); }, 24, "\"Read\""},
        {[&] { return Write(&request, operationOf(0), 0, 0); }, 25, "\"Write\""},
        {[&] { return GeneralConfig(&request, configOf(0), 0); }, 35, "\"GeneralConfig\""},
        {[&] { return RawConfig(&request, configOf(2), 0); }, 36, "\"RawConfig\""},
        {[&] { return Write_922Hub_Reset(&request, operationOf(0), 0, 0, &hubHandle); }, 37, "\"Write_922Hub_Reset\""},
    };
    for (const auto& row : rows) {
        restart();
        const std::unique_ptr<ErrlEntry> entry{row.call()};
        ASSERT_NE(nullptr, entry) << row.name;
        EXPECT_EQ("\n", platform.layerCalls());
        const EntryRecord& record = platform.entry(1);
        ASSERT_EQ(1U, record.srcs.size());
        EXPECT_NE(0U, record.srcs[0].word1) << "source line";
        EXPECT_EQ((Src{.module = row.module, .reason = 0x132B, .word1 = record.srcs[0].word1}), record.srcs[0]);
        EXPECT_EQ(0x8000132BU, record.returnCode);
        EXPECT_EQ((std::vector<Callout>{{1, 4}}), record.callouts);
        const auto& traces = platform.traceRecords();
        ASSERT_EQ(3U, traces.size());
        EXPECT_EQ(" %s", traces[1].format);
        EXPECT_EQ((std::vector<std::string>{row.name}), traces[1].arguments);
    }
    EXPECT_EQ(0xCAFEU, value);
}

TEST_F(Registers, ChainWithoutARegisterDeviceIsRefused)
{
    // the request still says 9552
    node.type = KEST_DEV_SEEPROM_2K;
    const std::unique_ptr<ErrlEntry> entry{Write_922Hub_Reset(&request, operationOf(0), 0, 0, &hubHandle)};
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ("\n", platform.layerCalls());
    EXPECT_EQ(42, platform.entry(1).srcs.at(0).module);
    EXPECT_EQ(37, platform.entry(2).srcs.at(0).module);
    EXPECT_EQ(0x132B, platform.entry(2).srcs.at(0).reason);
}

TEST_F(Registers, WithoutMemoryNothingMoreIsTransferred)
{
    for (const Routine& routine : framedRoutines()) {
        int refused = 0;
        for (int n = 1; n < 20; ++n) {
            restart();
            become(0x9552);
            platform.healthy().failAllocation(n);
            const std::unique_ptr<ErrlEntry> entry{routine.call(&request)};
            if (!entry) {
                break;
            }
            ++refused;
            const EntryRecord& record = platform.entry(entry.get());
            EXPECT_EQ(routine.module, record.srcs.at(0).module);
            EXPECT_EQ(0x132B, record.srcs.at(0).reason);
            EXPECT_EQ(0x8000132BU, record.returnCode);
            EXPECT_EQ(0, platform.openHandles() + platform.heldLocks());
        }
        // the device, and each operation with its buffer
        EXPECT_EQ(routine.module == 36 ? 3 : 5, refused) << routine.name;
    }
    // from now on no allocation fails
    restart();
}

} // namespace
