/// Page writes as kestctl counts and shows them.
#include <algorithm>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;

/// panel-vpd is a 24C02: 256 bytes, pages of 8, two groups of 16 pages.
class KestctlWear : public SeepromTest
{
protected:
    void write(const std::string& offset, const std::string& hex) const
    {
        says({"seeprom", "write", "panel-vpd", "--offset", offset, "--hex", hex, "--all-pages", "--yes", "--force"});
    }
    [[nodiscard]] json row(const std::string& name = "panel-vpd") const
    {
        const json listed = json::parse(kestctl({"--json", "devices"}).output);
        for (const json& each : listed["devices"]) {
            if (each["name"] == name) {
                return each;
            }
        }
        return {};
    }
    void limit(int pages) const
    {
        const std::string text = readFile(machine() / "kest.toml");
        writeFile(machine() / "kest.toml", text + "\n[wear]\nlimit = " + std::to_string(pages) + "\n");
    }
    /// No proof of the offset width comes before a write: it would meet the faults, and refuses contents.
    void needNoProof() const
    {
        std::string text = readFile(machine() / "kest.toml");
        const std::size_t at = text.find("name = \"panel-vpd\"");
        ASSERT_NE(std::string::npos, at);
        writeFile(machine() / "kest.toml", text.insert(at, "width_proved = true\n"));
    }
    [[nodiscard]] std::filesystem::path onlyFile() const
    {
        const std::filesystem::directory_iterator files(machine() / "state/wear");
        return files->path();
    }
};

TEST_F(KestctlWear, PagesThatGoOutAreCounted)
{
    EXPECT_EQ(0, row()["page_writes"]);
    // pages 0 and 1, page 15, page 16: the first of the second group
    EXPECT_THAT(
        says({"seeprom", "write", "panel-vpd", "--offset", "7", "--hex", "A55A", "--all-pages", "--yes", "--force"}),
        EndsWith("\nwear: 2 page writes so far, at most 2 in 16 pages\n"));
    write("0x78", "01");
    write("0x80", "02");
    EXPECT_EQ(4, row()["page_writes"]);
    EXPECT_EQ(3, row()["page_writes_in_group"]);
    EXPECT_EQ(false, row()["worn"]);
    EXPECT_EQ(0, row("planar-vpd")["page_writes"]);
    EXPECT_THAT(says({"devices"}), HasSubstr(" sim:planar,L,1C0002,A4  4 page writes\n"));
    // by another text of the same place
    says({"seeprom", "write", "sim:planar,l,1c0002,a4", "--hex", "03", "--all-pages", "--yes", "--force"});
    EXPECT_EQ(5, row()["page_writes"]);
}

TEST_F(KestctlWear, WhatGoesNotOutIsNotCounted)
{
    says({"seeprom", "write", "panel-vpd", "--hex", "A55A", "--dry-run", "--yes", "--force"});
    says({"copy", "capture", "panel-vpd"});
    says({"seeprom", "write", "panel-vpd", "--mode", "mixed", "--hex", "A55A"});
    EXPECT_EQ(3, kestctl({"seeprom", "write", "panel-vpd", "--hex", "A55A"}).exit) << "not confirmed";
    fault({"nack", "--address", "0xA4", "--way", "write"});
    EXPECT_NE(0, kestctl({"seeprom", "write", "panel-vpd", "--hex", "A55A", "--all-pages", "--yes", "--force"}).exit);
    clearFaults();
    EXPECT_EQ(0, row()["page_writes"]);
}

TEST_F(KestctlWear, OfAFailedWriteThePagesThatCameAreCounted)
{
    needNoProof();
    writeFile(machine() / "panel.bin", std::string(256, '.'));
    const std::string bytes(64, 'x');
    fault({"nack-data", "--address", "0xA4", "--way", "write", "--nth", "8"});
    EXPECT_EQ(
        1,
        kestctl({"seeprom", "write", "panel-vpd", "-i", file("new", bytes), "--all-pages", "--yes", "--force"}).exit);
    clearFaults();
    const auto pages = std::ranges::count(image("panel"), 'x') / 8;
    ASSERT_LT(0, pages);
    ASSERT_GT(8, pages);
    EXPECT_EQ(pages, row()["page_writes"]);
}

TEST_F(KestctlWear, MoreThanTheLimitIsWarnedOf)
{
    needNoProof();
    limit(2);
    write("0", "0102030405060708090A0B0C0D0E0F10");
    const RunResult third =
        kestctl({"seeprom", "write", "panel-vpd", "--hex", "FF", "--all-pages", "--yes", "--force"});
    EXPECT_EQ(0, third.exit);
    constexpr auto warning = "kestctl: panel-vpd: 3 page writes in the 16 pages from offset 0 (0x0) are more than "
                             "wear.limit, 2\n";
    EXPECT_EQ(warning, third.errors);
    const RunResult listed = kestctl({"devices"});
    EXPECT_EQ(0, listed.exit);
    EXPECT_EQ(warning, listed.errors);
    EXPECT_EQ(true, row()["worn"]);
}

TEST_F(KestctlWear, ADamagedCountIsSetAsideAndSaid)
{
    write("0", "01");
    const auto counts = onlyFile();
    writeFile(counts, "rubbish");
    EXPECT_EQ("kestctl: panel-vpd: counts in " + counts.string() + ": the file is damaged\n",
              kestctl({"devices"}).errors);
    const RunResult written = kestctl({"seeprom", "write", "panel-vpd", "--hex", "02", "--yes", "--force"});
    EXPECT_EQ(0, written.exit);
    EXPECT_EQ("kestctl: panel-vpd: page writes: those before were lost: " + counts.filename().string() +
                  " was damaged, and is " + counts.string() + ".damaged now\n",
              written.errors);
    EXPECT_EQ("rubbish", readFile(counts.string() + ".damaged"));
    EXPECT_EQ(1, row()["page_writes"]);
}

TEST_F(KestctlWear, JsonOfAWriteHasTheCounts)
{
    const json written = json::parse(
        says({"--json", "seeprom", "write", "riser-vpd", "--hex", "A55A", "--all-pages", "--yes", "--force"}));
    EXPECT_EQ(1, written["page_writes"]);
    EXPECT_EQ(1, written["page_writes_in_group"]);
    EXPECT_EQ(false, written["worn"]);
}

TEST_F(KestctlWear, OtherDevicesHaveNoPages) { EXPECT_FALSE(row("panel-leds").contains("page_writes")); }

/// Strangers list devices without a line about what they may not read.
TEST_F(KestctlWear, IsNotKnownToThoseWhoMayNotReadIt)
{
    if (geteuid() != 0 || !letStrangersIn()) {
        GTEST_SKIP() << "needs root, and programs that strangers can start";
    }
    write("0", "01");
    std::filesystem::permissions(machine() / "state/wear", std::filesystem::perms::owner_all);
    const RunResult listed = kestctl({"--json", "devices"}, {.stranger = true});
    EXPECT_EQ(0, listed.exit);
    EXPECT_EQ("", listed.errors);
    const json rows = json::parse(listed.output);
    EXPECT_EQ(nullptr, rows["devices"].at(1)["page_writes"]);
    EXPECT_EQ(nullptr, rows["devices"].at(1)["worn"]);
}

} // namespace
} // namespace kest::test
