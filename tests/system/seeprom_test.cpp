/// SEEPROMs in all read modes, with real contents. Their check sums find a dropped, repeated or swapped byte.
#include <algorithm>
#include <csignal>
#include <fstream>
#include <functional>
#include <iterator>

#include "platform/host/vpd/copies.h"
#include "tests/places.h"
#include "tests/system/library_machine.h"

namespace kest::test
{
namespace
{

class Seeprom : public LibraryMachine
{
protected:
    static Bytes contents(const std::string& name)
    {
        std::ifstream file(std::string(sourceFolder) + "/examples/images/" + name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    static Ending readAs(kest_attributeValue mode, std::uint32_t number, unsigned int offset, unsigned int length,
                         const std::string& text = "sim:planar,L,2C0256,A0")
    {
        auto attributes = hardware;
        attributes[KEST_ATTR_READ_MODE] = mode;
        unsigned int moved = length;
        unsigned char* data = nullptr;
        ErrlEntry* const entry =
            KEST_seepromRead(address(text, number), nullptr, offset, &moved, &data, attributes.data());
        Ending result{.length = moved, .data = {}};
        if (data != nullptr) {
            result.data.assign(data, data + moved);
        }
        tavo_util_free(reinterpret_cast<void**>(&data));
        return conclude(entry, std::move(result));
    }
    static Ending writeAs(kest_attributeValue mode, std::uint32_t number, unsigned int offset, const Bytes& data)
    {
        auto attributes = hardware;
        attributes[KEST_ATTR_READ_MODE] = mode;
        auto moved = static_cast<unsigned int>(data.size());
        ErrlEntry* const entry = KEST_seepromWrite(address("sim:planar,L,2C0256,A0", number), nullptr, offset, &moved,
                                                   data.data(), attributes.data());
        return conclude(entry, {.length = moved, .data = {}});
    }
};
constexpr kest_attributeValue fileMode = 3;
constexpr kest_attributeValue mixedMode = 5;

unsigned sumOf(const Bytes& data, std::size_t from, std::size_t count)
{
    unsigned sum = 0;
    for (std::size_t at = from; at < from + count; ++at) {
        sum += data.at(at);
    }
    return sum & 0xFF;
}

/// CRC-16 with polynomial 0x1021, as in memory modules.
unsigned crc16(const Bytes& data, std::size_t from, std::size_t count)
{
    unsigned sum = 0;
    for (std::size_t at = from; at < from + count; ++at) {
        sum ^= static_cast<unsigned>(data.at(at)) << 8;
        for (int bit = 0; bit < 8; ++bit) {
            sum = ((sum & 0x8000) != 0 ? sum << 1 ^ 0x1021 : sum << 1) & 0xFFFF;
        }
    }
    return sum;
}

std::uint32_t crc32(const Bytes& data, std::size_t count)
{
    std::uint32_t sum = 0xFFFFFFFF;
    for (std::size_t at = 0; at < count; ++at) {
        sum ^= data.at(at);
        for (int bit = 0; bit < 8; ++bit) {
            sum = sum >> 1 ^ ((sum & 1) != 0 ? 0xEDB88320U : 0U);
        }
    }
    return ~sum;
}

bool edidIsSound(const Bytes& data)
{
    bool sound = !data.empty() && data.size() % 128 == 0;
    for (std::size_t at = 0; sound && at < data.size(); at += 128) {
        sound = sumOf(data, at, 128) == 0;
    }
    return sound;
}
bool littleEndianCrc16(const Bytes& data, std::size_t from, std::size_t count, std::size_t at)
{
    return crc16(data, from, count) == (data.at(at) | static_cast<unsigned>(data.at(at + 1)) << 8);
}
bool spdIsSound(const Bytes& data) { return littleEndianCrc16(data, 0, (data.at(0) & 0x80) != 0 ? 117 : 126, 126); }
bool longSpdIsSound(const Bytes& data) { return spdIsSound(data) && littleEndianCrc16(data, 128, 126, 254); }
bool newestSpdIsSound(const Bytes& data) { return littleEndianCrc16(data, 0, 510, 510); }
bool tlvIsSound(const Bytes& data)
{
    // the header, then this many bytes
    const std::size_t end = 11 + static_cast<std::size_t>(data.at(9) << 8 | data.at(10));
    const std::uint32_t stored = static_cast<std::uint32_t>(data.at(end - 4)) << 24 |
                                 static_cast<std::uint32_t>(data.at(end - 3)) << 16 |
                                 static_cast<std::uint32_t>(data.at(end - 2)) << 8 | data.at(end - 1);
    return crc32(data, end - 4) == stored;
}
bool moduleIsSound(const Bytes& data)
{
    return sumOf(data, 0, 63) == data.at(63) && sumOf(data, 64, 31) == data.at(95);
}
// of the header of an inventory record; areas are multiples of it
constexpr std::size_t fruHeader = 8;

/// Whether header and board area match their sums, and the board's fields end within the area.
bool fruIsSound(const Bytes& data)
{
    const std::size_t board = fruHeader * data.at(3);
    const bool header = sumOf(data, 0, fruHeader) == 0 && board + 1 < data.size();
    const std::size_t length = header ? fruHeader * data.at(board + 1) : 0;
    const bool whole = length != 0 && board + length <= data.size() && sumOf(data, board, length) == 0;
    // the fields follow version, length, language and date of manufacture
    std::size_t field = board + 6;
    while (whole && field < board + length && data.at(field) != 0xC1) {
        field += 1U + (data.at(field) & 0x3FU);
    }
    return whole && field < board + length;
}

void closeWithSum(Bytes& data, std::size_t from)
{
    data.push_back(static_cast<std::uint8_t>(0x100 - sumOf(data, from, data.size() - from)));
}

/// An inventory record whose board area is `eights` times eight bytes long: from 2, with little room, to 255.
Bytes fruRecord(std::size_t eights)
{
    // manufacturer, product, serial number, part number, file, then more
    constexpr std::size_t fields = 5;
    // the board area alone
    Bytes data{1, 0, 0, 1, 0, 0, 0};
    // room for fields, without what precedes them, end mark and sum
    std::size_t room = fruHeader * eights - 6 - 2;
    closeWithSum(data, 0);
    data.insert(data.end(), {1, static_cast<std::uint8_t>(eights), 25, 0x40, 0xE2, 0x01});
    for (std::size_t number = 0; number < fields || room > 1; ++number) {
        // length bytes of the fields that must follow
        const std::size_t after = number < fields ? fields - 1 - number : 0;
        std::size_t length = std::min<std::size_t>(room - 1 - after, 63);
        // a single character would mark the end
        length = length == 1 ? 0 : length;
        data.push_back(static_cast<std::uint8_t>(0xC0 | length));
        for (std::size_t at = 0; at < length; ++at) {
            data.push_back(static_cast<std::uint8_t>(' ' + (at * 7 + number * 13 + eights) % 95));
        }
        room -= 1 + length;
    }
    data.push_back(0xC1);
    data.insert(data.end(), room, 0);
    closeWithSum(data, fruHeader);
    return data;
}

struct Sample {
    const char* name;
    bool (*sound)(const Bytes&);
};

TEST_F(Seeprom, RealContentsSurviveAWriteAndARead)
{
    const std::vector<Sample> samples{
        {"edid-128-dell-e178wfp-vga.bin", edidIsSound},    {"edid-128-syncmaster245b-from-bus.bin", edidIsSound},
        {"edid-384-acer-xv273k-dp.bin", edidIsSound},      {"spd-256-ddr3-soldered.bin", spdIsSound},
        {"spd-512-ddr4-M471A1G44AB0.bin", longSpdIsSound}, {"spd-1024-ddr5-M425R1GB4BB0.bin", newestSpdIsSound},
        {"tlvinfo-4096-switch.bin", tlvIsSound},           {"sff-512-FS-DWDM-SFP10G-80.bin", moduleIsSound}};
    for (const Sample& one : samples) {
        const Bytes original = contents(one.name);
        ASSERT_TRUE(one.sound(original)) << one.name;
        Bytes broken = original;
        std::swap(broken.at(5), broken.at(40) == broken.at(5) ? broken.at(41) : broken.at(40));
        broken.at(20) = static_cast<std::uint8_t>(broken.at(20) + 1);
        EXPECT_FALSE(one.sound(broken)) << one.name << ": the check finds nothing";
        for (const unsigned int offset : {0U, 1U, 63U, 1000U}) {
            for (const char* const text :
                 {"sim:planar,L,2C0256,A0", "sim:planar,L,2C0512,A6", "sim:planar,L,922,80,7,2C0128,A2"}) {
                ASSERT_TRUE(write(text, offset, original).good()) << one.name << text;
                const Ending back = read(text, offset, static_cast<unsigned int>(original.size()));
                ASSERT_TRUE(back.good()) << back << text;
                EXPECT_TRUE(one.sound(back.data)) << one.name << text << offset;
            }
        }
    }
    for (const char* const name : {"edid-128-dell-e178wfp-vga.bin", "spd-256-ddr3-soldered.bin"}) {
        const Bytes original = contents(name);
        ASSERT_TRUE(write("sim:planar,L,1C0002,A4", 0, original).good());
        const Bytes back = read("sim:planar,L,1C0002,A4", 0, static_cast<unsigned int>(original.size())).data;
        EXPECT_TRUE(original.size() == 128 ? edidIsSound(back) : spdIsSound(back)) << name;
    }
}

TEST_F(Seeprom, InventoryRecordsOfEveryLengthSurviveAWriteAndARead)
{
    struct {
        const char* text;
        unsigned int offset;
        std::size_t longest; ///< board area, in eights of bytes
    } const places[] = {{"sim:planar,L,2C0032,A8", 17, 255},
                        {"sim:planar,L,1C0002,A4", 0, 31},
                        {"sim:planar,L,922,80,7,1C0002,A6", 0, 31},
                        {"sim:planar,L,922,80,0,2C0128,A2", 16384 - 2048, 255}};
    for (const auto& place : places) {
        for (std::size_t eights = 2; eights <= place.longest; eights += eights < 32 || eights > 250 ? 1 : 16) {
            SCOPED_TRACE(std::string(place.text) + " " + std::to_string(eights));
            const Bytes original = fruRecord(eights);
            ASSERT_EQ(8 + 8 * eights, original.size());
            ASSERT_TRUE(fruIsSound(original));
            for (const std::size_t at : {std::size_t{3}, std::size_t{9}, original.size() / 2, original.size() - 1}) {
                Bytes broken = original;
                broken.at(at) ^= 0x04;
                EXPECT_FALSE(fruIsSound(broken)) << "the check finds nothing at " << at;
            }
            const Ending written = write(place.text, place.offset, original);
            ASSERT_TRUE(written.good()) << written;
            const Ending back = read(place.text, place.offset, static_cast<unsigned int>(original.size()));
            ASSERT_TRUE(back.good()) << back;
            ASSERT_EQ(original.size(), back.data.size());
            EXPECT_TRUE(fruIsSound(back.data));
            EXPECT_EQ(original, back.data);
        }
    }
}

TEST_F(Seeprom, WholeDevicesOfEveryType)
{
    const std::vector<std::pair<const char*, const char*>> chips{
        {"sim:planar,L,1C0002,A4", "small.bin"}, {"sim:planar,L,2C0032,A8", "medium.bin"},
        {"sim:planar,L,2C0064,AC", "eight.bin"}, {"sim:planar,L,2C0128,AE", "sixteen.bin"},
        {"sim:planar,L,2C0256,A0", "main.bin"},  {"sim:planar,L,2C0512,A6", "large.bin"}};
    for (const auto& [text, file] : chips) {
        const Bytes before = image(file);
        EXPECT_EQ(before, read(text, 0, 0).data) << text;
        Bytes fresh = before;
        std::ranges::reverse(fresh);
        const Ending written = write(text, 0, fresh);
        EXPECT_TRUE(written.good()) << written << text;
        settle();
        EXPECT_EQ(fresh, image(file)) << text;
    }
}

TEST_F(Seeprom, PowerCycleKeepsWhatWasWritten)
{
    ASSERT_TRUE(write("sim:planar,L,2C0256,A0", 123, {1, 2, 3, 4}).good());
    machine->powerCycle();
    EXPECT_EQ((Bytes{1, 2, 3, 4}), read("sim:planar,L,2C0256,A0", 123, 4).data);
}

TEST_F(Seeprom, FileModeServesTheCopyAlone)
{
    EXPECT_EQ(0x40001306U, readAs(fileMode, 7, 0, 16).returnCode);
    EXPECT_EQ(0x40001306U, writeAs(fileMode, 7, 0, {1}).returnCode);
    const Bytes tlv = contents("tlvinfo-4096-switch.bin");
    ASSERT_EQ(0, host::replaceCopy(7, tlv));
    EXPECT_TRUE(tlvIsSound(readAs(fileMode, 7, 0, 4096).data));
    EXPECT_EQ(part(tlv, 100, 50), readAs(fileMode, 7, 100, 50).data);
    // this crosses the end
    EXPECT_EQ(part(tlv, 4000, 96), readAs(fileMode, 7, 4000, 1000).data);
    EXPECT_EQ(tlv, readAs(fileMode, 7, 0, 0).data);
    EXPECT_EQ(0x80001305U, readAs(fileMode, 7, 4096, 1).returnCode);
    EXPECT_TRUE(writeAs(fileMode, 7, 10, {9, 8, 7}).good());
    EXPECT_EQ((Bytes{9, 8, 7}), readAs(fileMode, 7, 10, 3).data);
    EXPECT_EQ(0x80001308U, writeAs(fileMode, 7, 4094, {1, 2, 3}).returnCode);
    // the device was not written
    EXPECT_EQ(pattern(32768, 1), image("main.bin"));
}

TEST_F(Seeprom, MixedModePrefersTheCopy)
{
    // without a copy it reads the whole device
    EXPECT_EQ(pattern(32768, 1), readAs(mixedMode, 9, 0, 16).data);
    ASSERT_TRUE(writeAs(mixedMode, 9, 0, {5, 5}).good());
    settle();
    EXPECT_EQ((Bytes{5, 5}), part(image("main.bin"), 0, 2));
    ASSERT_EQ(0, host::replaceCopy(9, Bytes(64, 0x11)));
    EXPECT_EQ(Bytes(16, 0x11), readAs(mixedMode, 9, 0, 16).data);
    ASSERT_TRUE(writeAs(mixedMode, 9, 0, {6, 6}).good());
    settle();
    // the copy took the write
    EXPECT_EQ((Bytes{5, 5}), part(image("main.bin"), 0, 2));
    EXPECT_EQ((Bytes{6, 6}), readAs(mixedMode, 9, 0, 2).data);
}

/// A damaged copy is reported; the hardware does not step in for it.
TEST_F(Seeprom, ADamagedCopyIsServedInNoMode)
{
    ASSERT_EQ(0, host::replaceCopy(9, Bytes(300, 0x11)));
    // one bit of its bytes
    std::fstream file(host::copyPath(9), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(100).put(0x13);
    file.close();
    for (const kest_attributeValue mode : {fileMode, mixedMode}) {
        const Ending got = readAs(mode, 9, 0, 16);
        EXPECT_EQ(0x80001305U, got.returnCode);
        EXPECT_EQ(9U, got.word4);
        EXPECT_TRUE(got.data.empty());
        EXPECT_EQ(0x80001305U, writeAs(mode, 9, 0, {5, 5}).returnCode);
    }
    settle();
    EXPECT_EQ(pattern(32768, 1), image("main.bin"));
}

TEST_F(Seeprom, TimeOutOnceIsRescuedAndLogged)
{
    machine->addFault({.kind = "hold-sda", .bus = "planar", .address = 0xA0, .nth = 1, .count = 1});
    const Ending got = read("sim:planar,L,2C0256,A0", 500, 40);
    EXPECT_TRUE(got.good()) << got;
    EXPECT_EQ(part(pattern(32768, 1), 500, 40), got.data);
    machine->addFault({.kind = "hold-sda", .bus = "planar", .address = 0xA0, .nth = 2, .count = 1});
    const Bytes fresh = pattern(300, 77);
    EXPECT_TRUE(write("sim:planar,L,2C0256,A0", 4000, fresh).good());
    settle();
    EXPECT_EQ(fresh, part(image("main.bin"), 4000, 300));
    const auto logged = host::listEntries({});
    ASSERT_EQ(2U, logged.entries.size());
    for (const auto& entry : logged.entries) {
        // recovered
        EXPECT_EQ(0x10U, entry.severity);
        EXPECT_EQ(0x4000, entry.commitAction);
    }
}

TEST_F(Seeprom, RepeatedTimeOutIsReportedWithBothAttempts)
{
    machine->addFault({.kind = "hold-sda", .bus = "planar", .address = 0xA0});
    const Ending got = read("sim:planar,L,2C0256,A0", 0, 16);
    EXPECT_EQ(0x00001312U, got.returnCode & 0xFFFF);
    EXPECT_EQ(62U, got.word4);
}

// The reset between the attempts fails and frees nothing.
TEST_F(Seeprom, HeldSclOutlastsTheReset)
{
    const auto held = machine->addFault({.kind = "hold-scl", .bus = "planar", .address = 0xA0});
    const Ending got = read("sim:planar,L,2C0256,A0", 0, 16);
    EXPECT_FALSE(got.good());
    EXPECT_EQ(62U, got.word4);
    machine->clearFault(held);
    EXPECT_EQ(part(pattern(32768, 1), 0, 16), read("sim:planar,L,2C0256,A0", 0, 16).data);
}

} // namespace
} // namespace kest::test
