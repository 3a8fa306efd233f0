#include "kest/seeprom.h"

#include <string>
#include <vector>

#include "kestseeprom.h"
#include "tests/kest/expected.h"
#include "tests/kest/results.h"
#include "tests/platform/scripted.h"

using namespace scripted;
using namespace expected;
using namespace results;
using namespace kest;

namespace
{

constexpr char location[] = "sim:planar,L,2C0256,A0";

/// A record of attributes with another read mode.
std::vector<kest_attributeValue> inMode(kest_attributeValue readMode) { return {400, 1, 15, readMode, 2, 1}; }

constexpr kest_attributeValue fileMode = 3, mixedMode = 5, hardwareMode = 4;

struct KestSeeprom : BufferTest {
    tavo_deviceaddress address{17, {}};
    const Bytes bytes = counting(8, 0x10);

    KestSeeprom()
    {
        std::string(location).copy(address.location, sizeof address.location);
        length = 8;
        kest_forgetMode();
    }
    ~KestSeeprom() override { kest_forgetMode(); }
    void again()
    {
        BufferTest::again();
        kest_forgetMode();
        length = 8;
    }

    void read(kest_attributeValue mode, unsigned offset = 4)
    {
        errl = KEST_seepromRead(address, nullptr, offset, &length, &data, inMode(mode).data());
    }
    void write(kest_attributeValue mode, unsigned offset = 4)
    {
        errl = KEST_seepromWrite(address, nullptr, offset, &length, bytes.data(), inMode(mode).data());
    }
    Platform& hardwareReads() { return platform.opens().configures(3).seeks().reads(bytes).closes(); }
    Platform& hardwareWrites() { return platform.opens().configures(2).seeks().writes().closes(); }
    bool usedHardware() const { return platform.layerCalls().find("mern_iic_open") != std::string::npos; }
};

constexpr char copyRead[] = "tavo_read_data_persistancy(\"qorn/P3_Root\", 17, null, null, length 8, offset 4)\n";
constexpr char copyProbe[] = "tavo_read_data_persistancy(\"qorn/P3_Root\", 17, null, null, length 1, offset 0)\n";
constexpr char copyWrite[] =
    "tavo_write_data_persistancy(\"qorn/P3_Root\", 17, null, 8 bytes: 10 11 12 13 14 15 16 17, offset 4)\n";

ExpectedSrc copySrc(unsigned module, unsigned reason, std::uint32_t word2, std::uint32_t word3, std::uint32_t mode)
{
    return {module, reason, 17, word2, word3, mode, 0x81, "kestseeprom"};
}

// --- selection of the mode ---

TEST_F(KestSeeprom, TheAttributeSelectsTheMode)
{
    const struct {
        kest_attributeValue attribute;
        bool asksRegistry, readsCopy, readsHardware;
    } rows[] = {{1, true, false, true},  {2, true, false, true},          {3, false, true, false},
                {5, false, true, true},  {0, false, false, true},         {4, false, false, true},
                {6, false, false, true}, {0xFFFFFFFF, false, false, true}};
    for (const bool writing : {false, true}) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.attribute);
            again();
            // registry HWareMode, no persisted copies
            platform.healthy();
            writing ? write(row.attribute) : read(row.attribute);
            EXPECT_EQ(row.asksRegistry ? 1u : 0u, platform.lines(kindRegistry).size());
            EXPECT_EQ(row.readsCopy ? 1u : 0u, platform.lines(kindService).size());
            EXPECT_EQ(row.readsHardware, usedHardware());
        }
    }
}

TEST_F(KestSeeprom, NoAttributesAreTheDefaults)
{
    platform.registryAnswers(text("FileMode")).readsCopy(bytes);
    errl = KEST_seepromRead(address, nullptr, 4, &length, &data, nullptr);
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ("\nUtilReg::read(\"tavo/ReadMode\", 16, false, null)\n" + std::string(copyRead), platform.calls());
    EXPECT_EQ(bytes, bytesRead());
}

TEST_F(KestSeeprom, NoAttributesWriteWithTheDefaults)
{
    platform.registryAnswers(text("HWareMode"));
    hardwareWrites();
    errl = KEST_seepromWrite(address, nullptr, 4, &length, bytes.data(), nullptr);
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(std::vector<unsigned>{15000}, platform.sleeps());
}

TEST_F(KestSeeprom, TheRegistryIsReadAgainWhenTheAttributeSaysSo)
{
    platform.registryAnswers(text("FileMode")).readsCopy(bytes);
    read(1);
    release();
    platform.registryAnswers(text("MixedMode")).readsCopy(bytes);
    read(2);
    release();
    platform.readsCopy(bytes);
    read(1);
    EXPECT_EQ(2u, platform.lines(kindRegistry).size());
    EXPECT_FALSE(usedHardware());
}

// --- reading ---

TEST_F(KestSeeprom, ReadsACopyInFileMode)
{
    platform.readsCopy(bytes);
    read(fileMode);
    EXPECT_EQ("\n" + std::string(copyRead), platform.calls());
    EXPECT_EQ("\n", platform.traces());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(bytes, bytesRead());
}

TEST_F(KestSeeprom, ReadsACopyInMixedModeWithoutTheHardware)
{
    // the copy ends before the eight bytes asked for
    platform.readsCopy(counting(3));
    read(mixedMode);
    EXPECT_EQ("\n" + std::string(copyRead), platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(counting(3), bytesRead());
}

TEST_F(KestSeeprom, ReportsAMissingCopyInFileMode)
{
    platform.readsCopy({});
    read(fileMode);
    EXPECT_EQ("\n" + std::string(copyRead) + newEntry(1, copySrc(6, 0x1306, 0, 0, 0)) + returnCode(1, 0x40001306),
              platform.calls());
    EXPECT_NE(nullptr, errl);
    EXPECT_EQ(0u, length);
    EXPECT_EQ(1u, platform.lines(kindTrace).size());
}

TEST_F(KestSeeprom, ReportsAFailedCopyReadInBothModes)
{
    for (const kest_attributeValue mode : {fileMode, mixedMode}) {
        again();
        platform.failsCopyRead({}, 5);
        read(mode);
        EXPECT_EQ("\n" + std::string(copyRead) + addedSrc(1, copySrc(6, 0x1305, 5, 4, mode == fileMode ? 1 : 2)) +
                      returnCode(1, 0x80001305),
                  platform.calls());
        EXPECT_NE(nullptr, errl);
        EXPECT_FALSE(usedHardware());
        EXPECT_EQ(1u, platform.lines(kindTrace).size());
    }
}

TEST_F(KestSeeprom, ReadsTheWholeDeviceInMixedModeWithoutACopy)
{
    platform.readsCopy({}).opens().configures(3).seeks().reads(counting(32768)).closes();
    read(mixedMode);
    EXPECT_EQ("\n" + std::string(copyRead), platform.log(kindService));
    EXPECT_EQ(nullptr, errl);
    // the length 0 of the copy was passed on
    EXPECT_EQ(32768u, length);
    EXPECT_EQ(counting(32768), bytesRead());
}

TEST_F(KestSeeprom, FreesWhatAnEmptyCopyLeftBehind)
{
    platform.readsEmptyCopy().opens().configures(3).seeks().reads(counting(32768)).closes();
    read(mixedMode);
    EXPECT_EQ("\ntavo_util_free(copy1)\ntavo_malloc(32768)\n", platform.log(kindMemory));
    EXPECT_EQ(counting(32768), bytesRead());
    again();
    platform.readsEmptyCopy();
    write(fileMode);
    EXPECT_EQ("\ntavo_util_free(copy1)\n", platform.log(kindMemory));
    EXPECT_EQ(0x40001306u, platform.entry(1).returnCode);
}

TEST_F(KestSeeprom, GivesNoFreedBufferAway)
{
    // the hardware read ends before it allocates a buffer
    address.location[0] = '\0';
    platform.readsEmptyCopy();
    read(mixedMode);
    EXPECT_EQ("\ntavo_util_free(copy1)\n", platform.log(kindMemory));
    EXPECT_EQ(nullptr, data);
}

TEST_F(KestSeeprom, LeavesABufferOfAnEmptyCopyToTheCallerInFileMode)
{
    platform.readsEmptyCopy();
    read(fileMode);
    EXPECT_EQ(0x40001306u, platform.entry(1).returnCode);
    EXPECT_NE(nullptr, data);
    EXPECT_EQ(0u, length);
}

TEST_F(KestSeeprom, ReadsTheHardware)
{
    hardwareReads();
    read(hardwareMode);
    EXPECT_EQ("\ntavo_malloc(8)\n"
              "MernInitialize(0x80000000)\n"
              "mern_iic_open(node -1, \"sim:planar\", 0x1002)\n"
              "mern_iic_config(h1, 2, 19, block: speed 400, address 0xA0, offset bytes 2, timeout 2064, write cycle "
              "15, page 64, "
              "flags 0xFFFB0001, busy wait 1000)\n"
              "mern_iic_config(h1, 2, 2, 0x190)\n"
              "mern_iic_config(h1, 2, 16, 0x2)\n"
              "mern_iic_seek(h1, 4, 0)\n"
              "mern_iic_read(h1, 8)\n"
              "mern_iic_close(h1)\n",
              platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(bytes, bytesRead());
}

/// The end of a failed hardware read of 8 bytes from offset 4, device absent.
std::string absentRead(std::uint32_t module, std::uint32_t site, std::uint32_t siteAbove)
{
    return "entry1.addUsrDtls(list 0xA0/0x2C0256/0, 0x1300, 1, 1)\n" + softwareError(1, 0x40001311, module, site) +
           callout(1, 4) + callout(1, 6) + softwareError(1, 0x40001311, 6, siteAbove);
}

std::string lastLines(const std::string& text, const std::string& expect)
{
    return text.size() < expect.size() ? text : text.substr(text.size() - expect.size());
}

TEST_F(KestSeeprom, CallsOutTheDeviceThatFailedInHardwareMode)
{
    platform.opens().configures(3).seeks().failsRead(6).capturesFfdc().closes();
    read(hardwareMode);
    const std::string expect = absentRead(15, 751, 369) + "entry1.addFruCallout(1, 0x11)\n";
    EXPECT_EQ(expect, lastLines(platform.calls(), expect));
    EXPECT_EQ((std::vector<Callout>{{1, 4}, {1, 4}, {1, 6}}), platform.entry(1).callouts);
    EXPECT_EQ(1u, platform.entry(1).srcs.size());
    EXPECT_EQ(0x40001311u, platform.entry(1).returnCode);
}

TEST_F(KestSeeprom, CallsOutNoDeviceInMixedMode)
{
    platform.readsCopy({}).opens().configures(3).seeks().failsRead(6).capturesFfdc().closes();
    read(mixedMode);
    const std::string expect = absentRead(15, 751, 369);
    EXPECT_EQ(expect, lastLines(platform.calls(), expect));
    EXPECT_TRUE(platform.entry(1).fruCallouts.empty());
}

TEST_F(KestSeeprom, CallsOutNoDeviceWithoutANumber)
{
    address.number = 0;
    platform.opens().configures(3).seeks().failsRead(6).capturesFfdc().closes();
    read(hardwareMode);
    EXPECT_TRUE(platform.entry(1).fruCallouts.empty());
    EXPECT_EQ((std::vector<Callout>{{1, 4}, {1, 4}, {1, 6}}), platform.entry(1).callouts);
}

TEST_F(KestSeeprom, CallsOutTheLow16BitsOfADeviceNumber)
{
    address.number = 0x00120034;
    platform.failsOpen(19);
    read(hardwareMode);
    EXPECT_EQ((std::vector<Callout>{{1, 0x34}}), platform.entry(1).fruCallouts);
}

TEST_F(KestSeeprom, AddsToAnEntryThatTheEngineMadeOnlyAtItsEnd)
{
    address.location[0] = '\0';
    read(hardwareMode);
    EXPECT_EQ("\n" + newEntry(1, {15, 0x1315, 0, 0, 0, 0, 0x81, "kestseeprom"}) + returnCode(1, 0x80001315) +
                  callout(1) + "entry1.addUsrDtls(0 bytes, 0x1300, 1, 7)\n" + callout(1, 4) + callout(1, 6) +
                  softwareError(1, 0x80001315, 6, 369) + "entry1.addFruCallout(1, 0x11)\n",
              platform.calls());
    EXPECT_EQ(0u, length);
}

TEST_F(KestSeeprom, RefusesABufferInUse)
{
    unsigned char taken = 0;
    data = &taken;
    read(hardwareMode);
    EXPECT_EQ("\n" + newEntry(1, {6, 0x1307, 0, 0, 0, 0, 0x81, "kestseeprom"}) + returnCode(1, 0x80001307) + callout(1),
              platform.calls());
    EXPECT_EQ(&taken, data);
    EXPECT_EQ(8u, length);
    EXPECT_EQ(1u, platform.lines(kindTrace).size());
    data = nullptr;
}

TEST_F(KestSeeprom, ChecksTheBufferBeforeTheLength)
{
    unsigned char taken = 0;
    unsigned char* used = &taken;
    errl = KEST_seepromRead(address, nullptr, 0, nullptr, &used, nullptr);
    EXPECT_EQ(0x80001307u, platform.entry(1).returnCode);
}

TEST_F(KestSeeprom, RefusesAReadWithoutLengthOrBufferPointer)
{
    const struct {
        unsigned int* length;
        unsigned char** data;
        const char* trace;
    } rows[] = {{nullptr, &data, ", 1, 0)"}, {&length, nullptr, ", 0, 1)"}, {nullptr, nullptr, ", 1, 1)"}};
    for (const auto& row : rows) {
        again();
        errl = KEST_seepromRead(address, nullptr, 0, row.length, row.data, inMode(hardwareMode).data());
        EXPECT_EQ("\n" + newEntry(1, {6, 0x132B, 0, 0, 0, 0, 0x81, "kestseeprom"}) + returnCode(1, 0x8000132B) +
                      callout(1),
                  platform.calls());
        EXPECT_NE(std::string::npos, platform.traces().find(std::string("\"KEST_seepromRead\"") + row.trace));
    }
}

// --- writing ---

TEST_F(KestSeeprom, WritesACopyThatIsThereAndNotTheDevice)
{
    for (const kest_attributeValue mode : {fileMode, mixedMode}) {
        again();
        platform.readsCopy(hex("ff")).writesCopy();
        write(mode);
        EXPECT_EQ("\n" + std::string(copyProbe) + "tavo_util_free(copy1)\n" + copyWrite, platform.calls());
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ("\n", platform.traces());
    }
}

TEST_F(KestSeeprom, ReportsAFailedCopyWriteAndLeavesTheDevice)
{
    for (const kest_attributeValue mode : {fileMode, mixedMode}) {
        again();
        platform.readsCopy(hex("ff")).failsCopyWrite({}, 3);
        write(mode);
        EXPECT_EQ("\n" + std::string(copyProbe) + "tavo_util_free(copy1)\n" + copyWrite +
                      addedSrc(1, copySrc(7, 0x1308, 3, 4, mode == fileMode ? 1 : 2)) + returnCode(1, 0x80001308),
                  platform.calls());
        EXPECT_NE(nullptr, errl);
        EXPECT_EQ(1u, platform.lines(kindTrace).size());
    }
}

TEST_F(KestSeeprom, ReportsAFailedProbe)
{
    for (const kest_attributeValue mode : {fileMode, mixedMode}) {
        again();
        platform.failsCopyRead();
        write(mode);
        EXPECT_EQ("\n" + std::string(copyProbe) + addedSrc(1, copySrc(7, 0x1305, 0, 0, mode == fileMode ? 1 : 2)) +
                      returnCode(1, 0x80001305),
                  platform.calls());
        EXPECT_NE(nullptr, errl);
        EXPECT_EQ(1u, platform.lines(kindTrace).size());
    }
}

TEST_F(KestSeeprom, WritesNothingInFileModeWithoutACopy)
{
    platform.readsCopy({});
    write(fileMode);
    EXPECT_EQ("\n" + std::string(copyProbe) + newEntry(1, copySrc(7, 0x1306, 0, 0, 0)) + returnCode(1, 0x40001306),
              platform.calls());
    EXPECT_NE(nullptr, errl);
    EXPECT_EQ(1u, platform.lines(kindTrace).size());
    EXPECT_EQ(8u, length);
}

TEST_F(KestSeeprom, WritesTheDeviceInMixedModeWithoutACopy)
{
    platform.readsCopy({});
    hardwareWrites();
    write(mixedMode);
    EXPECT_EQ("\n" + std::string(copyProbe), platform.log(kindService));
    EXPECT_EQ(std::vector<Bytes>{bytes}, platform.written());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(8u, length);
}

TEST_F(KestSeeprom, CallsOutTheDeviceThatCouldNotBeWritten)
{
    platform.opens().configures(2).seeks().failsWrite(6).capturesFfdc().closes();
    write(hardwareMode);
    const std::string expect = absentRead(17, 1441, 1097) + "entry1.addFruCallout(1, 0x11)\n";
    EXPECT_EQ(expect, lastLines(platform.calls(), expect));
    EXPECT_EQ(0u, length);
}

TEST_F(KestSeeprom, CallsOutNoDeviceForAWriteInMixedMode)
{
    platform.readsCopy({}).opens().configures(2).seeks().failsWrite(6).capturesFfdc().closes();
    write(mixedMode);
    const std::string expect = absentRead(17, 1441, 1097);
    EXPECT_EQ(expect, lastLines(platform.calls(), expect));
}

TEST_F(KestSeeprom, RefusesAWriteWithoutLengthOrData)
{
    const auto low = [](const void* pointer) {
        return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pointer) & 0xFFFFFFFF);
    };
    const struct {
        unsigned int* length;
        const unsigned char* data;
        const char* trace;
    } rows[] = {{nullptr, bytes.data(), ", 1, 0)"}, {&length, nullptr, ", 0, 1)"}, {nullptr, nullptr, ", 1, 1)"}};
    for (const auto& row : rows) {
        again();
        errl = KEST_seepromWrite(address, nullptr, 0, row.length, row.data, inMode(hardwareMode).data());
        EXPECT_EQ("\n" + newEntry(1, {7, 0x132B, low(row.length), low(row.data), 0, 0, 0x81, "kestseeprom"}) +
                      returnCode(1, 0x8000132B) + callout(1),
                  platform.calls());
        EXPECT_NE(std::string::npos, platform.traces().find(std::string("\"KEST_seepromWrite\"") + row.trace));
    }
}

TEST_F(KestSeeprom, TracesItsEntryAndExit)
{
    platform.readsCopy(bytes);
    read(fileMode);
    ASSERT_EQ(2u, platform.lines(kindScope).size());
    EXPECT_NE(std::string::npos, platform.lines(kindScope)[0].find("\" %s\", \"KEST_seepromRead\")"));
    EXPECT_NE(std::string::npos, platform.lines(kindScope)[1].find("\" %s\", \"KEST_seepromRead\")"));
}

TEST_F(KestSeeprom, ReleasesEverythingWhateverFails)
{
    for (const bool writing : {false, true}) {
        for (const kest_attributeValue mode : {1u, 2u, fileMode, mixedMode, hardwareMode}) {
            for (int failing = 1;; ++failing) {
                again();
                platform.healthy().failCall(failing, 5, false, kindLayer | kindService | kindRegistry | kindMemory);
                StandardError quiet;
                writing ? write(mode) : read(mode);
                const bool reported = errl != nullptr || platform.commits() > 0 || !quiet.text().empty();
                if (!platform.faultWasMet()) {
                    break;
                }
                EXPECT_TRUE(reported) << platform.failedCall();
                release();
                EXPECT_EQ(0, platform.openHandles() + platform.liveBuffers() + platform.liveEntries())
                    << platform.failedCall();
            }
        }
    }
}

} // namespace
