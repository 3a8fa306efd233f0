/// Writes by a wrong type while the bus fails: what the proof of the offset width changed is put back or named.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/seeprom_support.h"

namespace kest::test
{
namespace
{

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/// A blank part with one offset byte on a bus of its own, named as a 24C256.
class KestctlWidthGuard : public SeepromTest
{
protected:
    /// @param keys  of the chip
    void part(const std::string& keys, const std::string& type = "24C02", std::size_t bytes = 256) const
    {
        const std::string chip = "[[bus]]\nname = \"f\"\n[[chip]]\nbus = \"f\"\naddress = 0xA0\nimage = \"f.bin\"\n";
        writeFile(machine() / "machine.toml", chip + "type = \"" + type + "\"\n" + keys);
        writeFile(machine() / "kest.toml", "state = \"state\"\n[machine]\nfolder = \".\"\n");
        writeFile(machine() / "f.bin", std::string(bytes, '\xFF'));
    }
    void ferroelectric() const { part("kind = \"fram\"\n"); }
    /// A read of the part that a STOP cuts off.
    void shortRead(int nth, int count = 1) const
    {
        fault({"short", "--address", "0xA0", "--way", "read", "--nth", std::to_string(nth), "--count",
               std::to_string(count)});
    }
    [[nodiscard]] std::string content() const { return image("f"); }

    static constexpr const char* asLarge = "sim:f,L,2C0256,A0";
    const std::string blank = std::string(256, '\xFF');
    const std::vector<std::string> write{"seeprom", "write", asLarge, "--hex", "5A5B5C5D", "--yes"};
};

TEST_F(KestctlWidthGuard, AReadThatFailsLeavesNoByteThatItChanged)
{
    ferroelectric();
    // the fourth read of the part is the first piece behind two offset bytes that does not end
    shortRead(4);
    const std::string line =
        complaint(3, {"seeprom", "write", asLarge, "--input", file("16k", std::string(16384, '\0')), "--dry-run"});
    EXPECT_EQ("sim:f,L,2C0256,A0: width proof: the part is no 24C256: a read behind two offset bytes changed it, as it "
              "does a ferroelectric part with one; it holds its old bytes; the read ended early: the transfer "
              "ended before its last byte; types that would fit: 24C02 (1C0002)",
              line);
    EXPECT_EQ(blank, content());
}

TEST_F(KestctlWidthGuard, OneFailedReadOfATrialNeitherProvesAWidthNorKeepsBytesFromBeingPutBack)
{
    for (const char* keys : {"", "kind = \"fram\"\n"}) {
        for (int nth = 4; nth <= 12; ++nth) {
            part(keys);
            clearFaults();
            shortRead(nth);
            const std::string line = complaint(3, write);
            EXPECT_THAT(line, HasSubstr("; it holds its old bytes; types that would fit: 24C02 (1C0002)")) << nth;
            EXPECT_EQ(blank, content()) << keys << nth;
        }
    }
}

TEST_F(KestctlWidthGuard, ATrialThatCanNotBeReadLeavesAFileThatFitsAPartWithOneOffsetByte)
{
    part("");
    // from the first read after the trial write on
    shortRead(5, 1000);
    const std::string line = complaint(3, write);
    clearFaults();
    EXPECT_THAT(line, StartsWith("sim:f,L,2C0256,A0: width proof: the offset width is not known: after a byte was "
                                 "written, its reads differ or fail; whether the byte of the trial at offset 0x0 is "
                                 "changed is not known; 'kestctl seeprom restore "));
    EXPECT_THAT(line, EndsWith(" does so for a part with one offset byte"));
    EXPECT_NE(blank, content());
    const std::string start = "'kestctl seeprom restore ";
    const std::size_t at = line.rfind(start) + start.size();
    EXPECT_EQ(0, kestctl({"seeprom", "restore", line.substr(at, line.rfind('\'') - at), "--yes"}).exit);
    EXPECT_EQ(blank, content());
}

TEST_F(KestctlWidthGuard, ATrialWhoseWriteFailsNamesTheByteAndTheUndoFile)
{
    part("");
    fault({"stuck-write-cycle", "--address", "0xA0"});
    const std::string line = complaint(1, write);
    EXPECT_THAT(line, StartsWith("sim:f,L,2C0256,A0: write: a trial write for the offset width failed: the chip does "
                                 "not come back from the write cycle of a page; whether the byte of the trial at "
                                 "offset 0x0 is changed is not known; 'kestctl seeprom restore "));
    EXPECT_THAT(line, HasSubstr(" puts the old bytes back; 'kestctl seeprom restore "));
}

TEST_F(KestctlWidthGuard, ATrialThatEndsWellLeavesNoFileButTheUndoFile)
{
    part("", "24C256", 32768);
    EXPECT_THAT(says(write), HasSubstr("offset width: two offset bytes: a byte written at offset 0x0 as a trial reads "
                                       "back\n"));
    EXPECT_EQ("Z[\\]", content().substr(0, 4));
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(machine() / "state/undo"), {}));
}

} // namespace
} // namespace kest::test
