/// Reading, writing, ports, sensors, hubs and detection on every kind of adapter, from the exported functions and from
/// the IIC layer down to the chips: each job works, or is refused before anything is sent.
#include <cerrno>
#include <gmock/gmock.h>
#include <map>

#include "tests/system/library_machine.h"

namespace kest::test
{
namespace
{

using testing::HasSubstr;

enum class Job {
    readLarge, ///< 24C256, two bytes of offset
    readSmall, ///< 24C02, one
    writeLarge,
    writeSmall,
    detect, ///< of devices without memory; when refused, a detect state stands in the place of an errno
    detectMemory,
    pins8, ///< PCA9554: reads of one byte, writes of two
    pins16, ///< PCA9555: reads of two, writes of three
    leds8, ///< PCA9551: reads of two, writes of three
    leds16, ///< PCA9552: reads of four, writes of five
    blinkRate, ///< writes of two
    sensors, ///< reads of two
    hubReadLarge, ///< four bytes of offset ahead of status and data
    hubReadSmall, ///< three
    hubWriteLarge,
    hubWriteSmall,
};

struct Kind {
    const char* name;
    const char* keys;
    std::map<Job, int> refused; ///< with which errno; all other jobs work
    const char* chipKeys = "";
};
std::ostream& operator<<(std::ostream& out, const Kind& kind) { return out << kind.name; }

const std::map<Job, int> allOverSmbusWords{
    {Job::readLarge, ENOSYS},    {Job::pins16, ENOSYS},        {Job::leds8, ENOSYS},
    {Job::leds16, EINVAL},       {Job::sensors, ENOSYS},       {Job::hubReadLarge, ENOSYS},
    {Job::hubReadSmall, ENOSYS}, {Job::hubWriteLarge, ENOSYS}, {Job::hubWriteSmall, ENOSYS}};
const std::map<Job, int> allOverSmbusBlocks{
    {Job::readLarge, ENOSYS}, {Job::pins16, ENOSYS},       {Job::leds8, ENOSYS},       {Job::leds16, ENOSYS},
    {Job::sensors, ENOSYS},   {Job::hubReadLarge, ENOSYS}, {Job::hubReadSmall, ENOSYS}};
const std::map<Job, int> hubReads{{Job::hubReadLarge, ENOSYS}, {Job::hubReadSmall, ENOSYS}};
// a hub holds no clock while it takes a write
const std::map<Job, int> allButHubWrites{{Job::readLarge, ETIME},
                                         {Job::readSmall, ETIME},
                                         {Job::writeLarge, ETIME},
                                         {Job::writeSmall, ETIME},
                                         {Job::detect, MERN_DETECT_SCL_HELD},
                                         {Job::detectMemory, MERN_DETECT_SCL_HELD},
                                         {Job::pins8, ETIME},
                                         {Job::pins16, ETIME},
                                         {Job::leds8, ETIME},
                                         {Job::leds16, ETIME},
                                         {Job::blinkRate, ETIME},
                                         {Job::sensors, ETIME},
                                         {Job::hubReadLarge, ETIME},
                                         {Job::hubReadSmall, ETIME}};
constexpr const char* slow = "stretch_us = 200\n";

const std::vector<Kind> kinds{
    {"Any", "", {}},
    {"LongMessages", "adapter = { message_bytes = 255 }\n", {}},
    {"ShortMessages", "adapter = { message_bytes = 32 }\n", {}},
    {"FourBytes", "adapter = { message_bytes = 4 }\n", {{Job::leds16, EINVAL}, {Job::hubWriteLarge, ENOSYS}}},
    {"TwoMessages", "adapter = { messages = 2 }\n", {}},
    {"OneMessage",
     "adapter = { messages = 1 }\n",
     {{Job::readLarge, ENOSYS}, {Job::readSmall, ENOSYS}, {Job::hubReadLarge, ENOSYS}, {Job::hubReadSmall, ENOSYS}}},
    {"SmbusWords", "adapter = { smbus = \"words\" }\n", allOverSmbusWords},
    {"SmbusBlocks", "adapter = { smbus = \"blocks\" }\n", allOverSmbusBlocks},
    {"SmbusBlocksWithoutQuickCommand",
     "adapter = { smbus = \"blocks\", no_empty_messages = true }\n",
     {{Job::readLarge, ENOSYS},
      {Job::detect, MERN_DETECT_UNCERTAIN},
      {Job::pins16, ENOSYS},
      {Job::leds8, ENOSYS},
      {Job::leds16, ENOSYS},
      {Job::sensors, ENOSYS},
      {Job::hubReadLarge, ENOSYS},
      {Job::hubReadSmall, ENOSYS}}},
    {"SecondsTimeOut", "adapter = { timeout_ms = 1000 }\n", {}},
    {"ShortTimeOut", "adapter = { timeout_ms = 25 }\n", {}},
    {"SilenceIsATimeOut", "adapter = { absent = \"timeout\" }\n", {}},
    {"SilenceIsALongTimeOut", "adapter = { absent = \"timeout\", timeout_ms = 100 }\n", {}},
    {"NoEmptyMessages", "adapter = { no_empty_messages = true }\n", {}},
    {"StopBetweenMessages", "adapter = { stop_between = true }\n", hubReads},
    {"SmallController",
     "adapter = { message_bytes = 32, messages = 2, timeout_ms = 100, no_empty_messages = true }\n",
     {}},
    // ahead of a status byte a hub holds SCL for 73.5 us, or with two bytes of offset for 96 us
    {"HubsWithinTheStretchLimit", "adapter = { stretch_limit_us = 96 }\n", {}},
    {"HubsBeyondTheStretchLimit", "adapter = { stretch_limit_us = 95 }\n", {{Job::hubReadLarge, ETIME}}},
    {"SlowChips", "", {}, slow},
    // and for three or four bytes of the chip behind it
    {"SlowChipsWithinTheStretchLimit", "adapter = { stretch_limit_us = 696 }\n", {}, slow},
    {"SlowChipsBehindHubsBeyondTheStretchLimit",
     "adapter = { stretch_limit_us = 695 }\n",
     {{Job::hubReadLarge, ETIME}},
     slow},
    {"SlowChipsAtTheStretchLimit",
     "adapter = { stretch_limit_us = 200 }\n",
     {{Job::hubReadLarge, ETIME}, {Job::hubReadSmall, ETIME}},
     slow},
    {"SlowChipsBeyondTheStretchLimit", "adapter = { stretch_limit_us = 199 }\n", allButHubWrites, slow},
};

class AdapterJobs : public LibraryMachine, public testing::WithParamInterface<Kind>
{
protected:
    AdapterJobs() : LibraryMachine(GetParam().keys, GetParam().chipKeys) {}

    [[nodiscard]] static int expected(Job what)
    {
        const auto found = GetParam().refused.find(what);
        return found == GetParam().refused.end() ? 0 : found->second;
    }
    /// The errno with which the layer failed a call. An entry without one is -1: it is no refusal.
    static int errnoOf(ErrlEntry* entry)
    {
        if (entry == nullptr) {
            return 0;
        }
        const Ending ended = conclude(entry, {.data = {}});
        return ended.word4 == 0 ? -1 : static_cast<int>(ended.word4);
    }
    static int errnoOf(const Ending& ended) { return ended.good() ? 0 : static_cast<int>(ended.word4); }

    void expectRead(Job what, const std::string& text, const std::string& imageName, unsigned int length)
    {
        const Ending got = read(text, 3, length);
        EXPECT_EQ(expected(what), errnoOf(got)) << text << " " << got;
        EXPECT_EQ(expected(what) == 0 ? part(image(imageName), 3, length) : Bytes{}, got.data) << text;
    }
    void expectWrite(Job what, const std::string& text, const std::string& imageName, const Bytes& data)
    {
        const Bytes before = image(imageName);
        const Ending done = write(text, 0x35, data);
        settle();
        EXPECT_EQ(expected(what), errnoOf(done)) << text << " " << done;
        EXPECT_EQ(expected(what) == 0 ? with(before, 0x35, data) : before, image(imageName)) << text;
    }
    /// Writes pins and reads them back.
    static void expectPins(Job what, const char* text, unsigned bits)
    {
        EXPECT_EQ(expected(what), errnoOf(KEST_dpWrite(text, KEST_DP_SELECT_00, bits, 0, nullptr, 0))) << text;
        unsigned value = 0;
        if (expected(what) == 0) {
            EXPECT_EQ(0, errnoOf(KEST_dpRead(text, 0xFFFF, &value, nullptr, 0))) << text;
            EXPECT_EQ(0U, value & bits) << text;
        }
    }
    static void expectTemperature(const char* text, std::uint16_t word)
    {
        KEST_thermal_sensor_info sensor{};
        sensor.devicePath = text;
        EXPECT_EQ(expected(Job::sensors), thermalErrno(KEST_thermal_sensor_read_temperature_data(&sensor))) << text;
        EXPECT_EQ(expected(Job::sensors) == 0 ? word : 0, sensor.temperature) << text;
    }
    /// The first SRC of a sensor's entry that carries the layer's errno.
    static int thermalErrno(ErrlEntry* entry)
    {
        const std::unique_ptr<ErrlEntry> owned(entry);
        if (!owned) {
            return 0;
        }
        unsigned int count = 0;
        const SrciSrc* const source = owned->getSRC(0);
        return source == nullptr ? -1 : static_cast<int>(source->getHexData(count)[4]);
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, AdapterJobs, testing::ValuesIn(kinds),
                         [](const auto& each) { return std::string(each.param.name); });

TEST_P(AdapterJobs, Reading)
{
    expectRead(Job::readLarge, "sim:planar,L,2C0256,A0", "main.bin", 32765);
    expectRead(Job::readSmall, "sim:planar,L,1C0002,A4", "small.bin", 253);
}

TEST_P(AdapterJobs, Writing)
{
    expectWrite(Job::writeLarge, "sim:planar,L,2C0256,A0", "main.bin", pattern(300, 77));
    expectWrite(Job::writeSmall, "sim:planar,L,1C0002,A4", "small.bin", pattern(40, 78));
}

TEST_P(AdapterJobs, Detection)
{
    EXPECT_EQ(expected(Job::detectMemory), errnoOf(KEST_detectDevice("sim:planar@A0,L,2C0256,A0", nullptr)));
    for (const char* const text : {"sim:planar@90,L,75,90", "sim:planar@40,L,9555,40"}) {
        EXPECT_EQ(expected(Job::detect), errnoOf(KEST_detectDevice(text, nullptr))) << text;
    }
}

TEST_P(AdapterJobs, Ports)
{
    EXPECT_EQ(expected(Job::pins8),
              errnoOf(KEST_dpConfig("sim:planar,L,9554,42", KEST_DP_CONFIG_OUTPUT, 0x0F, nullptr)));
    expectPins(Job::pins8, "sim:planar,L,9554,42", 0x05);
    EXPECT_EQ(expected(Job::pins16),
              errnoOf(KEST_dpConfig("sim:planar,L,9555,40", KEST_DP_CONFIG_OUTPUT, 0xF0F0, nullptr)));
    expectPins(Job::pins16, "sim:planar,L,9555,40", 0x8010);
    expectPins(Job::leds8, "sim:planar,L,9551,C4", 0x81);
    expectPins(Job::leds16, "sim:planar,L,9552,C0", 0x4002);
    EXPECT_EQ(expected(Job::blinkRate),
              errnoOf(KEST_dpConfig("sim:planar,L,9552,C0", KEST_DP_CONFIG_PRESCALER0, 43, nullptr)));
}

TEST_P(AdapterJobs, Sensors)
{
    // 25 degrees
    expectTemperature("sim:planar,L,75,90", 0x1900);
    expectTemperature("sim:planar,L,92,96", 0x0C80);
}

TEST_P(AdapterJobs, Hubs)
{
    expectWrite(Job::hubWriteLarge, hubText(0x80, 7), "riser128-7.bin", pattern(200, 80));
    expectWrite(Job::hubWriteSmall, hubText(0x80, 7, true), "card128-7.bin", pattern(40, 81));
    expectRead(Job::hubReadLarge, hubText(0x80, 7), "riser128-7.bin", 5000);
    if (expected(Job::hubReadLarge) == ETIME) {
        // the hub sends its status, which begins with a 0, to nobody
        EXPECT_EQ(sim::outcome::sdaHeld, wires->lines());
        EXPECT_EQ(sim::outcome::done, wires->reset());
    }
    expectRead(Job::hubReadSmall, hubText(0x80, 7, true), "card128-7.bin", 200);
    EXPECT_TRUE(unlocked(0x80));
}

/// What the layer refuses on an adapter, and what it says that the adapter lacks.
struct Refusal {
    const char* keys;
    std::uint16_t offsetLength;
    bool reads;
    std::size_t length;
    int error;
    const char* lacks;
};
std::ostream& operator<<(std::ostream& out, const Refusal& each)
{
    return out << each.keys << (each.reads ? " read" : " write") << " of " << each.length << " behind "
               << each.offsetLength;
}

constexpr const char* length = "messages and transactions as long as this transfer needs";
constexpr const char* call = "a call that moves such bytes";
constexpr const char* repeatedStart = "a repeated START, which a read through a hub needs";
const std::vector<Refusal> refusals{
    {"message_bytes = 1", 1, false, 1, ENOSYS, length},
    {"message_bytes = 1", 2, true, 1, ENOSYS, length},
    {"message_bytes = 1", 0, true, 2, EINVAL, length},
    {"message_bytes = 4", 4, false, 1, ENOSYS, length},
    {"messages = 1", 1, true, 1, ENOSYS, length},
    {"messages = 1", 4, true, 9, ENOSYS, length},
    {"smbus = \"words\"", 2, true, 1, ENOSYS, call},
    {"smbus = \"words\"", 0, true, 2, ENOSYS, call},
    {"smbus = \"words\"", 0, false, 4, EINVAL, length},
    {"smbus = \"words\"", 3, false, 1, ENOSYS, length},
    {"smbus = \"blocks\"", 2, true, 1, ENOSYS, call},
    {"smbus = \"blocks\"", 3, true, 2, ENOSYS, call},
    {"smbus = \"blocks\"", 0, false, 34, EINVAL, length},
    {"stop_between = true", 3, true, 2, ENOSYS, repeatedStart},
    {"stop_between = true", 4, true, 300, ENOSYS, repeatedStart},
};

class AdapterRefusals : public LibraryMachine, public testing::WithParamInterface<Refusal>
{
protected:
    AdapterRefusals() : LibraryMachine("adapter = { " + std::string(GetParam().keys) + " }\n") {}
};
INSTANTIATE_TEST_SUITE_P(All, AdapterRefusals, testing::ValuesIn(refusals));

TEST_P(AdapterRefusals, SendNothingAndSayWhatTheAdapterLacks)
{
    const Refusal& each = GetParam();
    OpenDevice device("sim:planar");
    const auto address = static_cast<std::uint16_t>(each.offsetLength > 2 ? 0x80 : 0xA0);
    device.set({.address = address, .offsetLength = each.offsetLength, .pageSize = 8});
    Bytes data(each.length);
    EXPECT_EQ((Answer{0, each.error}), each.reads ? device.read(data) : device.write(data));
    EXPECT_EQ(0U, wires->busTimeNs());
    EXPECT_THAT(device.firstFailure(), HasSubstr("\"lacks\":\"" + std::string(each.lacks) + "\""));
}

class SmallController : public LibraryMachine
{
protected:
    SmallController() : LibraryMachine("adapter = { message_bytes = 32, messages = 2 }\n") {}
};

TEST_F(SmallController, IsAskedForMoreThanItTakesOnlyOnceByAHandle)
{
    OpenDevice device("sim:planar");
    device.set({.address = 0xA0, .offsetLength = 2, .pageSize = 64});
    EXPECT_EQ(part(image("main.bin"), 0, 100), device.readAll(100));
    // 100, 50 and 25 bytes were asked for, and refused before their START
    const std::uint64_t once = wires->busTimeNs();
    EXPECT_EQ(part(image("main.bin"), 100, 100), device.readAll(100));
    EXPECT_EQ(2 * once, wires->busTimeNs());
}

/// An address that does not answer at a start.
TEST_P(AdapterJobs, AbsentDevice)
{
    const bool timesOut = std::string(GetParam().keys).find("absent") != std::string::npos;
    const Ending got = read("sim:planar,L,1C0002,AA", 0, 1);
    const int silent = timesOut ? ETIME : ENXIO;
    EXPECT_EQ(expected(Job::readSmall) == ENOSYS ? ENOSYS : silent, errnoOf(got)) << got;
}

} // namespace
} // namespace kest::test
