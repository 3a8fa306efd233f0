/// The service looks at the part before it writes, and counts the pages that it writes.
#include <algorithm>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/tools/kestd_support.h"

namespace kest::test
{
namespace
{

using client::answer;
using client::outcome;
using nlohmann::json;
using testing::HasSubstr;

using Bytes = std::vector<std::uint8_t>;

constexpr const char* panelText = "sim:planar,L,1C0002,A4";
constexpr const char* riserText = "sim:planar,L,922,80,3,2C0128,A2";

/// A service of the demo machine, of whose parts the device table expects bytes.
class KestdParts : public KestdTest
{
protected:
    KestdParts() { EXPECT_EQ(0, run("kestctl", {"sim", "new", machine().string()}).exit); }

    [[nodiscard]] std::filesystem::path machine() const { return folder() / "machine"; }
    void startWith(const std::string& expect, const std::string& service = "", const std::string& mode = "HWareMode")
    {
        configure(service, mode,
                  "[[device]]\nnumber = 1\nname = \"panel\"\nlocation = \"" + std::string(panelText) +
                      "\"\nexpect = " + expect + "\n[[device]]\nnumber = 2\nlocation = \"" + riserText +
                      "\"\nexpect = " + expect + "\n[machine]\nfolder = \"machine\"\n");
        start();
    }
    void hold(const std::string& image, const std::string& content) const
    {
        writeFile(machine() / (image + ".bin"), content);
    }
    [[nodiscard]] std::string held(const std::string& image) const { return readFile(machine() / (image + ".bin")); }
    [[nodiscard]] RunResult kestctl(const std::vector<std::string>& arguments) const
    {
        return run("kestctl", configured(arguments));
    }
    [[nodiscard]] json lastEntry() const { return json::parse(kestctl({"errors", "show", "last", "--json"}).output); }
    [[nodiscard]] json pageWrites() const
    {
        const json listed = json::parse(kestctl({"devices", "--json"}).output);
        for (const json& each : listed.at("devices")) {
            if (each.at("text") == someLocation) {
                return each.at("page_writes");
            }
        }
        return {};
    }
    static constexpr const char* tag = R"({ offset = 4, bytes = "54 6C 76 49" })";
};

TEST_F(KestdParts, AnotherPartThanTheExpectedIsNotWritten)
{
    startWith(tag);
    const std::string content = "....Tlvx" + std::string(248, 'x');
    hold("panel", content);
    const answer got = connect().writeSeeprom(panelText, 0x40, Bytes{0x5A});
    EXPECT_EQ(outcome::refused, got.what);
    EXPECT_EQ(0x8000160BU, got.returnCode);
    EXPECT_EQ("the device table expects 54 6c 76 49 at offset 4 (0x4), the part holds 54 6c 76 78", got.message);
    EXPECT_EQ(content, held("panel"));
    const json entry = lastEntry();
    EXPECT_EQ(0x8000160BU, entry.at("return_code"));
    EXPECT_EQ(got.logId, entry.at("id"));
    // reads are served
    EXPECT_EQ(outcome::done, connect().readSeeprom(panelText, 0, 4).what);
}

TEST_F(KestdParts, TheExpectedAndABlankPartAreWritten)
{
    startWith(tag);
    hold("panel", "....TlvI" + std::string(248, 'x'));
    EXPECT_EQ(outcome::done, connect().writeSeeprom(panelText, 0x40, Bytes{0x5A}).what);
    EXPECT_EQ('\x5A', held("panel")[0x40]);
    for (const char blank : {'\xFF', '\0'}) {
        hold("panel", std::string(256, blank));
        EXPECT_EQ(outcome::done, connect().writeSeeprom(panelText, 0x40, Bytes{0x5A}).what);
    }
    // bytes 4 to 7 are blank, the rest of their page is not
    hold("panel", "used\xFF\xFF\xFF\xFF" + std::string(248, '\xFF'));
    EXPECT_EQ(0x8000160BU, connect().writeSeeprom(panelText, 0x40, Bytes{0x5A}).returnCode);
}

TEST_F(KestdParts, RawUsersWriteToAnyPart)
{
    startWith(tag, "raw_users = [\"" + std::to_string(geteuid()) + "\"]");
    hold("panel", std::string(256, 'x'));
    EXPECT_EQ(outcome::done, connect().writeSeeprom(panelText, 0x40, Bytes{0x5A}).what);
    EXPECT_EQ('\x5A', held("panel")[0x40]);
}

/// A read that the library recovers can return zeros, which would pass for a blank part.
TEST_F(KestdParts, BehindAHubBytesCountWhenTwoReadsAgree)
{
    startWith(R"({ offset = 0, bytes = "01 02" })");
    hold("riser", std::string(16384, 'x'));
    ASSERT_EQ(0, kestctl({"sim", "fault", "add", "hub-hold-sda", "--bus", "planar", "--address", "0x80", "--way",
                          "read", "--nth", "1", "--count", "1"})
                     .exit);
    const answer got = connect().writeSeeprom(riserText, 0, Bytes{0x5A});
    EXPECT_EQ(0x8000160BU, got.returnCode);
    EXPECT_THAT(got.message, HasSubstr("expects 01 02 at offset 0 (0x0), the part holds 78 78"));
    EXPECT_THAT(kestctl({"sim", "fault", "list"}).output, HasSubstr(", struck 1\n"));
    EXPECT_EQ(std::string(16384, 'x'), held("riser"));
    hold("riser", "\x01\x02" + std::string(16382, 'x'));
    EXPECT_EQ(outcome::done, connect().writeSeeprom(riserText, 2, Bytes{0x5A}).what);
    EXPECT_EQ('\x5A', held("riser")[2]);
}

TEST_F(KestdParts, APartThatCannotBeReadIsNotWritten)
{
    startWith(tag);
    hold("panel", "....TlvI" + std::string(248, 'x'));
    ASSERT_EQ(0, kestctl({"sim", "fault", "add", "nack", "--address", "0xA4", "--way", "read"}).exit);
    const answer got = connect().writeSeeprom(panelText, 0x40, Bytes{0x5A});
    EXPECT_EQ(outcome::failed, got.what);
    EXPECT_NE(0U, got.logId);
    EXPECT_EQ(0x00, got.flags);
    EXPECT_EQ('x', held("panel")[0x40]);
}

TEST_F(KestdParts, WhatADeviceHasNoRoomForIsSaid)
{
    startWith(R"({ offset = 254, bytes = "01 02 03" })");
    EXPECT_EQ("the device table expects 3 bytes at offset 254, which pass the end: the device holds 256 bytes",
              connect().writeSeeprom(panelText, 0x40, Bytes{0x5A}).message);
}

TEST_F(KestdParts, RefusalsOfOneUserFillNoLog)
{
    startWith(tag);
    hold("panel", std::string(256, 'x'));
    int entries = 0;
    for (int count = 0; count < 25; ++count) {
        entries += connect().writeSeeprom(panelText, 0, Bytes{0x5A}).logId != 0 ? 1 : 0;
    }
    EXPECT_EQ(20, entries);
}

TEST_F(KestdParts, KestctlSaysWhatToTry)
{
    startWith(tag);
    hold("panel", std::string(256, 'x'));
    // its own check is passed over
    const RunResult refused = kestctl({"message", "write", "panel", "--hex", "5A", "--yes", "--force"});
    EXPECT_EQ(3, refused.exit);
    EXPECT_THAT(refused.errors, HasSubstr("the part holds 78 78 78 78; is it another part? 'kestctl seeprom write "
                                          "--force' writes all the same [log 0x"));
}

/// 24C256: pages of 64 bytes. One in the middle is refused.
TEST_F(KestdParts, OfAFailedWriteThePagesThatCameAreCounted)
{
    startWith(tag);
    hold("system", std::string(32768, '.'));
    ASSERT_EQ(
        0, kestctl({"sim", "fault", "add", "nack-data", "--address", "0xA0", "--way", "write", "--nth", "450"}).exit);
    EXPECT_EQ(outcome::failed, connect().writeSeeprom(someLocation, 60, Bytes(640, 'x')).what);
    EXPECT_EQ(0, kestctl({"sim", "fault", "clear"}).exit);
    const auto last = static_cast<int>(held("system").rfind('x')) / 64;
    ASSERT_LT(0, last);
    ASSERT_GT(10, last);
    EXPECT_EQ(last + 1, pageWrites());
    EXPECT_EQ(outcome::done, connect().writeSeeprom(someLocation, 60, Bytes(8, 'x')).what);
    EXPECT_EQ(last + 3, pageWrites());
}

TEST_F(KestdParts, AWriteThatNobodyAnswersCountsNoPage)
{
    startWith(tag);
    ASSERT_EQ(0, kestctl({"sim", "fault", "add", "nack", "--address", "0xA0"}).exit);
    EXPECT_EQ(outcome::failed, connect().writeSeeprom(someLocation, 0, Bytes(64, 'x')).what);
    EXPECT_EQ(0, pageWrites());
}

} // namespace
} // namespace kest::test
