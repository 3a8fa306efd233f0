/// kestctl on parts of many makers: pages, addresses, offsets, ferroelectric memories, write protection, slow parts.
#include <gmock/gmock.h>

#include "tests/tools/program.h"

namespace kest::test
{
namespace
{

using testing::HasSubstr;

/// The demo machine with a bus "bench" of its own.
class KestctlParts : public MachineTest
{
protected:
    void SetUp() override { add("[[bus]]\nname = \"bench\"\n"); }

    void add(const std::string& text) const
    {
        writeFile(machine() / "machine.toml", readFile(machine() / "machine.toml") + text);
    }
    void part(const std::string& type, const std::string& address, const std::string& more) const
    {
        add("[[chip]]\nbus = \"bench\"\ntype = \"" + type + "\"\naddress = " + address + "\n" + more + "\n");
    }
    /// A memory part with contents that have no period.
    void memory(const std::string& type, const std::string& address, const std::string& name, std::size_t bytes,
                const std::string& more = "") const
    {
        part(type, address, more + "image = \"" + name + "\"");
        std::string content;
        for (std::uint32_t state = 1; content.size() < bytes;) {
            state = state * 1664525 + 1013904223;
            content += static_cast<char>(state >> 24U);
        }
        writeFile(machine() / name, content);
    }
    [[nodiscard]] std::string image(const std::string& name) const { return readFile(machine() / name); }
    /// The bytes that a read gives.
    [[nodiscard]] std::string bytes(const std::string& text, const std::string& offset, const std::string& length,
                                    const std::vector<std::string>& more = {}) const
    {
        const std::string file = (folder() / "read.bin").string();
        std::vector<std::string> command{
            "seeprom", "read", "sim:bench,L," + text, "--offset", offset, "--length", length, "-o", file};
        command.insert(command.end(), more.begin(), more.end());
        const RunResult result = kestctl(command);
        EXPECT_EQ(0, result.exit) << text << result.errors;
        return readFile(file);
    }
    [[nodiscard]] RunResult write(const std::string& text, const std::string& offset, const std::string& hex) const
    {
        return kestctl({"seeprom", "write", "sim:bench,L," + text, "--offset", offset, "--hex", hex, "--yes"});
    }
};

// The table says pages of 64 bytes. A part with smaller ones wraps: each page keeps what came last, and only the first
// page gets anything.
TEST_F(KestctlParts, APartWithSmallerPagesThanItsTypeIsFoundByTheVerification)
{
    const std::string hex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"
                            "202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f";
    std::string sent;
    for (char byte = 0; byte < 64; ++byte) {
        sent += byte;
    }
    struct {
        std::size_t page;
        const char *key, *address;
        int exit;
    } const rows[] = {{4, "4", "A0", 5},   {8, "8", "A2", 5},     {16, "16", "A4", 5},  {32, "32", "A6", 5},
                      {64, "64", "A8", 0}, {128, "128", "AA", 0}, {256, "256", "AC", 0}};
    for (const auto& row : rows) {
        memory("24C256", std::string("0x") + row.address, std::string(row.key) + ".bin", 32768,
               std::string("page = ") + row.key + "\n");
    }
    for (const auto& row : rows) {
        SCOPED_TRACE(row.page);
        const std::string name = std::string(row.key) + ".bin";
        std::string expected = image(name);
        const std::size_t kept = std::min<std::size_t>(row.page, 64);
        expected.replace(0x100, kept, sent.substr(64 - kept));
        const RunResult result = write(std::string("2C0256,") + row.address, "0x100", hex);
        EXPECT_EQ(row.exit, result.exit) << result.errors;
        EXPECT_EQ(expected, image(name));
    }
}

TEST_F(KestctlParts, APartWithoutAddressPinsIsTheSameAtEightAddresses)
{
    memory("24C02", "0xA6", "deaf.bin", 256, "addresses = \"all\"\n");
    for (const char* address : {"A0", "A2", "A4", "A6", "A8", "AA", "AC", "AE"}) {
        EXPECT_EQ(0, kestctl({"detect", std::string("sim:bench,L,1C0002,") + address}).exit) << address;
        EXPECT_EQ(image("deaf.bin"), bytes(std::string("1C0002,") + address, "0", "256")) << address;
    }
}

TEST_F(KestctlParts, EachAddressOfALargerPartWithOneOffsetByteIsABlock)
{
    struct {
        const char *type, *bus;
        std::size_t blocks;
    } const rows[] = {{"24C04", "four", 2}, {"24C08", "eight", 4}, {"24C16", "sixteen", 8}};
    const char* const addresses[] = {"A0", "A2", "A4", "A6", "A8", "AA", "AC", "AE"};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        memory(row.type, "0xA0", std::string(row.bus) + ".bin", row.blocks * 256);
        const std::string content = image(std::string(row.bus) + ".bin");
        for (std::size_t block = 0; block < 8; ++block) {
            const std::string text = std::string("1C0002,") + addresses[block];
            if (block < row.blocks) {
                EXPECT_EQ(content.substr(256 * block, 256), bytes(text, "0", "256")) << block;
                EXPECT_EQ(content.substr(256 * block + 0xFD, 3), bytes(text, "0xFD", "3")) << block;
            } else {
                EXPECT_EQ(4, kestctl({"detect", "sim:bench,L," + text}).exit) << block;
            }
        }
        // the next part has the same addresses
        std::string toml = readFile(machine() / "machine.toml");
        writeFile(machine() / "machine.toml", toml.substr(0, toml.rfind("[[chip]]")));
    }
}

// The counter stands at 0x3404 when one offset byte of two comes: 0x12.
TEST_F(KestctlParts, OneOffsetByteOfTwoDoesWhatThePartMakesOfIt)
{
    memory("24C256", "0xA0", "low.bin", 32768);
    memory("24C256", "0xA2", "high.bin", 32768, "half_offset = \"high\"\n");
    memory("24C256", "0xA4", "keep.bin", 32768, "half_offset = \"keep\"\n");
    struct {
        const char *name, *address;
        std::size_t at;
    } const rows[] = {{"low.bin", "A0", 0x0012}, {"high.bin", "A2", 0x1204}, {"keep.bin", "A4", 0x3404}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(image(row.name).substr(0x3400, 4), bytes(std::string("2C0256,") + row.address, "0x3400", "4"));
        EXPECT_EQ(image(row.name).substr(row.at, 8), bytes(std::string("1C0002,") + row.address, "0x12", "8"));
    }
}

// Data byte 5 of the page's transaction is the fourth behind its offset.
TEST_F(KestctlParts, AFerroelectricPartKeepsWhatItAcknowledged)
{
    memory("24C256", "0xA0", "fast.bin", 32768, "kind = \"fram\"\n");
    memory("24C256", "0xA2", "slow.bin", 32768);
    // of both
    const std::string before = image("slow.bin");
    for (const char* address : {"A0", "A2"}) {
        const std::string text = std::string("2C0256,") + address;
        // from one page into the next
        EXPECT_EQ(0, write(text, "0x3E", "B1B2B3B4").exit) << address;
        says({"sim", "fault", "add", "nack-data", "--bus", "bench", "--address", std::string("0x") + address, "--way",
              "write", "--byte", "5", "--count", "1"});
        EXPECT_EQ(1, write(text, "0x100", "A1A2A3A4A5A6A7A8").exit) << address;
    }
    const std::string fast = image("fast.bin"), slow = image("slow.bin");
    EXPECT_EQ("\xB1\xB2\xB3\xB4", fast.substr(0x3E, 4));
    EXPECT_EQ("\xB1\xB2\xB3\xB4", slow.substr(0x3E, 4));
    EXPECT_EQ("\xA1\xA2\xA3", fast.substr(0x100, 3));
    EXPECT_EQ(before.substr(0x103), fast.substr(0x103));
    EXPECT_EQ(before.substr(0x100), slow.substr(0x100));
}

TEST_F(KestctlParts, AProtectedHalfOrQuarterTakesNothing)
{
    struct {
        const char *name, *address, *protect, *area;
        const char *below, *from;
        int exit;
    } const rows[] = {{"a.bin", "A0", "silent", "half", "0x3FFC", "0x4000", 5},
                      {"b.bin", "A2", "silent", "quarter", "0x5FFC", "0x6000", 5},
                      {"c.bin", "A4", "nak", "half", "0x3FFC", "0x4000", 1},
                      {"d.bin", "A6", "nak", "quarter", "0x5FFC", "0x6000", 1},
                      {"e.bin", "A8", "silent", "all", "", "0", 5}};
    for (const auto& row : rows) {
        memory("24C256", std::string("0x") + row.address, row.name, 32768,
               std::string("protect = \"") + row.protect + "\"\nprotect_area = \"" + row.area + "\"\n");
    }
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string text = std::string("2C0256,") + row.address;
        std::string expected = image(row.name);
        if (*row.below != '\0') {
            EXPECT_EQ(0, write(text, row.below, "A1A2A3A4").exit);
            expected.replace(std::stoul(row.below, nullptr, 16), 4, "\xA1\xA2\xA3\xA4");
        }
        const RunResult refused = write(text, row.from, "B1B2B3B4");
        EXPECT_EQ(row.exit, refused.exit);
        // silence is found by the verification alone
        EXPECT_THAT(refused.errors,
                    HasSubstr(row.exit == 5 ? "the chip is write-protected: it holds the old bytes, and was never busy"
                                            : "the chip is write-protected: it refused a data byte"));
        EXPECT_EQ(expected, image(row.name));
    }
}

TEST_F(KestctlParts, APinOfAnExpanderProtects)
{
    memory("24C256", "0xA0", "a.bin", 32768, "protect = \"nak\"\nprotect_chip = 0x42\nprotect_pin = 3\n");
    part("PCA9554", "0x42", "");
    const std::string expander = "sim:bench,L,9554,42", before = image("a.bin");
    EXPECT_EQ(1, write("2C0256,A0", "0x40", "A1A2").exit);
    EXPECT_THAT(says({"sim", "show"}), HasSubstr("  WP        0x01  pin high: protected\n"));
    EXPECT_EQ(before, image("a.bin"));
    says({"port", "write", expander, "low", "--pins", "3"});
    says({"port", "config", expander, "output", "--pins", "3"});
    EXPECT_THAT(says({"sim", "show"}), HasSubstr("  WP        0x00  pin low: writable\n"));
    EXPECT_EQ(0, write("2C0256,A0", "0x40", "A1A2").exit);
    EXPECT_EQ("\xA1\xA2", image("a.bin").substr(0x40, 2));
    says({"port", "write", expander, "high", "--pins", "3"});
    EXPECT_EQ(1, write("2C0256,A0", "0x40", "B1B2").exit);
    EXPECT_EQ("\xA1\xA2", image("a.bin").substr(0x40, 2));
}

TEST_F(KestctlParts, APartThatIsTooSlowForItsBusIsSilentOrGarbles)
{
    memory("24C02", "0xA0", "silent.bin", 256, "max_khz = 100\n");
    memory("24C02", "0xA2", "garbled.bin", 256, "max_khz = 100\ntoo_fast = \"garbled\"\n");
    EXPECT_EQ(4, kestctl({"detect", "sim:bench,L,1C0002,A0"}).exit);
    EXPECT_EQ(4, kestctl({"seeprom", "read", "sim:bench,L,1C0002,A0"}).exit);
    EXPECT_EQ(image("silent.bin"), bytes("1C0002,A0", "0", "256", {"--speed", "100"}));

    EXPECT_EQ(0, kestctl({"detect", "sim:bench,L,1C0002,A2"}).exit);
    const std::string file = (machine() / "garbled.bin").string();
    EXPECT_EQ(5, kestctl({"seeprom", "verify", "sim:bench,L,1C0002,A2", file}).exit);
    const RunResult voted = kestctl({"seeprom", "read", "sim:bench,L,1C0002,A2", "--voted", "9"});
    EXPECT_EQ(1, voted.exit);
    EXPECT_THAT(voted.errors, HasSubstr("the reads differed at offsets 0x0 0x1 "));
    EXPECT_THAT(voted.errors, HasSubstr("no majority at offset "));
    EXPECT_EQ(0, kestctl({"seeprom", "verify", "sim:bench,L,1C0002,A2", file, "--speed", "100"}).exit);
}

// The library asks a sensor at 400 kHz.
TEST_F(KestctlParts, ASensorThatIsTooSlowForItsBusIsSilentOrGarbles)
{
    part("LM75", "0x90", "max_khz = 100");
    part("LM75", "0x92", "max_khz = 100\ntoo_fast = \"garbled\"");
    part("LM75", "0x94", "too_fast = \"garbled\"");
    EXPECT_EQ(4, kestctl({"thermal", "read", "sim:bench,L,75,90"}).exit);
    const auto rightOfEight = [this](const std::string& address) {
        const std::string sensor = "sim:bench,L,75," + address, right = sensor + ": 25 C (0x1900)\n";
        const std::string all = says({"thermal", "read", sensor, "--watch", "0.001", "--count", "8"});
        int count = 0;
        for (auto at = all.find(right); at != std::string::npos; at = all.find(right, at + 1)) {
            ++count;
        }
        return count;
    };
    EXPECT_GT(8, rightOfEight("92"));
    EXPECT_EQ(8, rightOfEight("94"));
}

TEST_F(KestctlParts, AnExpanderThatIsTooSlowForItsBusIsSilentOrGarbles)
{
    part("PCA9554", "0x40", "max_khz = 100");
    part("PCA9554", "0x42", "max_khz = 100\ntoo_fast = \"garbled\"");
    const std::string silent = "sim:bench,L,9554,40", garbling = "sim:bench,L,9554,42";
    EXPECT_EQ(4, kestctl({"port", "read", silent}).exit);
    EXPECT_EQ(0U, says({"port", "read", silent, "--speed", "100"}).find(silent + ": 0xFF\n"));
    std::size_t wrong = 0;
    for (int i = 0; i < 8; ++i) {
        wrong += says({"port", "read", garbling}).starts_with(garbling + ": 0xFF\n") ? 0 : 1;
        EXPECT_EQ(0U, says({"port", "read", garbling, "--speed", "100"}).find(garbling + ": 0xFF\n"));
    }
    EXPECT_LT(0U, wrong);
}

// Its adapter waits for SCL for a tenth of a millisecond.
TEST_F(KestctlParts, ASensorMayStretchTheClockAsLongAsItsAdapterWaits)
{
    add("[[bus]]\nname = \"hasty\"\nadapter = { stretch_limit_us = 100 }\n");
    for (const char* row : {"0x90\nstretch_us = 100\n", "0x92\nstretch_us = 101\n"}) {
        add(std::string{"[[chip]]\nbus = \"hasty\"\ntype = \"LM75\"\naddress = "} + row);
    }
    EXPECT_EQ("sim:hasty,L,75,90: 25 C (0x1900)\n", says({"thermal", "read", "sim:hasty,L,75,90"}));
    EXPECT_EQ(1, kestctl({"thermal", "read", "sim:hasty,L,75,92"}).exit);
}

// A hub asks its devices at 400 kHz, whatever the bus's clock is.
TEST_F(KestctlParts, ReadsOfAGarblingPartBehindAHubDoNotSettle)
{
    part("HUB922", "0x80", "");
    memory("24C02", "0xA2", "card.bin", 256, "hub = 0x80\nport = 3\nmax_khz = 100\ntoo_fast = \"garbled\"\n");
    for (const char* speed : {"100", "400"}) {
        const RunResult result = kestctl({"seeprom", "read", "sim:bench,L,922,80,3,1C0002,A2", "--speed", speed});
        EXPECT_EQ(1, result.exit);
        EXPECT_THAT(result.errors, HasSubstr("5 reads through the hub at offset 0 did not settle"));
    }
}

} // namespace
} // namespace kest::test
