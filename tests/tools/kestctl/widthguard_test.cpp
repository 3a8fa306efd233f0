/// Writes by a wrong type while the bus fails: what the proof of the offset width changed is put back or named.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/widthguard_support.h"

namespace kest::test
{
namespace
{

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

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

TEST_F(KestctlWidthGuard, AnOffsetByteThatArrivesWrongNeitherProvesAWidthNorKeepsAByteChanged)
{
    for (const char filled : {'\xFF', '\0'}) {
        for (const char* mask : {"0x40", "0x01"}) {
            for (const int byte : {0, 1}) {
                for (int nth = 3; nth <= 8; ++nth) {
                    ferroelectric();
                    fill(std::string(256, filled));
                    clearFaults();
                    wrongSent(nth, byte, mask);
                    const RunResult refused = kestctl(write);
                    EXPECT_EQ(3, refused.exit) << mask << byte << nth;
                    EXPECT_THAT(refused.errors, HasSubstr("it holds its old bytes; ")) << mask << byte << nth;
                    EXPECT_EQ(std::string(256, filled), content()) << mask << byte << nth;
                    EXPECT_EQ(0, undoFiles()) << mask << byte << nth;
                }
            }
        }
    }
}

TEST_F(KestctlWidthGuard, AnOffsetByteOfTheProofThatArrivesWrongLeavesNoByteChanged)
{
    const std::string varied = variedBytes(256);
    for (const int byte : {0, 1}) {
        for (int nth = 3; nth <= 16; ++nth) {
            for (const std::vector<std::string>& how :
                 {std::vector<std::string>{"seeprom", "probe", asLarge}, write,
                  std::vector<std::string>{"seeprom", "write", "sim:f,L,1C0002,A0", "--hex", "5A", "--dry-run"}}) {
                ferroelectric();
                fill(varied);
                clearFaults();
                wrongSent(nth, byte, "0x40");
                EXPECT_NE(-1, kestctl(how).exit);
                EXPECT_EQ(varied, content()) << how[1] << how[2] << byte << nth;
                EXPECT_EQ(0, undoFiles()) << byte << nth;
            }
        }
    }
}

TEST_F(KestctlWidthGuard, ABlankPartIsTriedOutAlsoWhenItMayBeWrittenUnproved)
{
    part("");
    std::vector<std::string> unproved = write;
    unproved.push_back("--width-unproved");
    EXPECT_THAT(complaint(3, unproved), HasSubstr("a byte written behind two offset bytes arrived as one behind one "
                                                  "does; it holds its old bytes; types that would fit: 24C02"));
    EXPECT_EQ(blank, content());
    EXPECT_EQ(0, undoFiles());
}

TEST_F(KestctlWidthGuard, ABlankPartThatGoesOnAtTheNextAddressIsNamedAndRefused)
{
    for (const char* keys : {"", "kind = \"fram\"\n"}) {
        for (const char filled : {'\xFF', '\0'}) {
            part(keys, "24C16", 2048);
            fill(std::string(2048, filled));
            const std::vector<std::string> asSmall{"seeprom", "write", "sim:f,L,1C0002,A0", "--hex",
                                                   "5A5B",    "--yes", "--width-unproved"};
            EXPECT_EQ("sim:f,L,1C0002,A0: width proof: the part is no 24C02: one offset byte, and it goes on at the "
                      "next address (24C04 to 24C16): a byte written at offset 0x0 as a trial reads back; it holds its "
                      "old bytes; types that would fit: no type of this program",
                      complaint(3, asSmall));
            EXPECT_EQ(std::string(2048, filled), content());
            EXPECT_EQ(0, undoFiles());
            std::vector<std::string> elsewhere = write;
            elsewhere.insert(elsewhere.end(), {"--offset", "0x110"});
            const std::string line = complaint(3, elsewhere);
            EXPECT_THAT(line, EndsWith("; it holds its old bytes; types that would fit: no type of this program"));
            EXPECT_EQ(std::string(2048, filled), content());
            EXPECT_EQ(0, undoFiles());
        }
    }
}

TEST_F(KestctlWidthGuard, ABlankPartShowsWhereItEnds)
{
    const std::vector<std::string> asSmall{"seeprom", "write", "sim:f,L,1C0002,A0", "--hex",
                                           "5A5B",    "--yes", "--offset",          "0x80"};
    for (const char* keys : {"", "kind = \"fram\"\n"}) {
        part(keys);
        EXPECT_THAT(says(asSmall),
                    HasSubstr("offset width: one offset byte, 256 bytes: a byte written at offset 0x80 as "
                              "a trial reads back\n"));
        EXPECT_EQ("Z[", content().substr(0x80, 2));
    }
    // no read reaches so far
    part("", "24C16", 2048, "message_bytes = 32, messages = 2");
    EXPECT_THAT(says(asSmall),
                HasSubstr("offset width: one offset byte: a byte written at offset 0x80 as a trial reads "
                          "back, but not whether it goes on at the next address\n"));
    std::string expected(2048, '\xFF');
    expected.replace(0x80, 2, "Z[");
    EXPECT_EQ(expected, content());
    // it answers at all addresses
    part("addresses = \"all\"\n");
    EXPECT_THAT(says(asSmall), HasSubstr("but not whether it goes on at the next address\n"));
}

TEST_F(KestctlWidthGuard, AWriteWithoutAProofLeavesAFileThatFitsAPartWithOneOffsetByte)
{
    part("", "24C256", 32768);
    std::string periodic;
    for (int count = 0; count < 8192; ++count) {
        periodic += "kest";
    }
    fill(periodic);
    std::vector<std::string> unproved = write;
    unproved.push_back("--width-unproved");
    const RunResult written = kestctl(unproved);
    EXPECT_EQ(0, written.exit);
    EXPECT_THAT(written.errors, HasSubstr("kestctl: sim:f,L,2C0256,A0: width proof: the offset width is not proved; "
                                          "'kestctl seeprom restore "));
    EXPECT_EQ(2, undoFiles());
    EXPECT_EQ(0, kestctl({"seeprom", "undo", asLarge, "--yes", "--width-unproved"}).exit);
    EXPECT_EQ(periodic, content());
}

TEST_F(KestctlWidthGuard, AByteOfATrialThatArrivesElsewhereIsPutBackOrItsUndoFileStays)
{
    const std::vector<std::string> asSmall{"seeprom", "write", "sim:f,L,1C0002,A0", "--hex", "5A5B", "--yes"};
    for (int nth = 3; nth <= 9; ++nth) {
        part("");
        clearFaults();
        wrongSent(nth, 0, "0x40");
        const RunResult ended = kestctl(asSmall);
        EXPECT_EQ(ended.exit == 0 ? "Z[" + std::string(254, '\xFF') : blank, content()) << nth << ended.errors;
    }
    int elsewhere = 0;
    for (int nth = 3; nth <= 9; ++nth) {
        large();
        clearFaults();
        wrongSent(nth, 0, "0x40");
        const RunResult ended = kestctl(write);
        const bool isElsewhere = content()[0x4000] != '\xFF';
        elsewhere += isElsewhere ? 1 : 0;
        EXPECT_EQ(isElsewhere ? 3 : 0, ended.exit) << nth << ended.errors;
        EXPECT_EQ(isElsewhere, ended.errors.find("the byte may have arrived elsewhere; ") != std::string::npos) << nth;
        EXPECT_LE(isElsewhere ? 1 : 0, undoFiles());
    }
    EXPECT_EQ(1, elsewhere);
}

TEST_F(KestctlWidthGuard, ABlankPartThatRefusesTheByteOfATrialIsCalledWriteProtected)
{
    part("protect = \"nak\"\n");
    EXPECT_THAT(
        complaint(1, {"seeprom", "write", "sim:f,L,1C0002,A0", "--hex", "5A", "--yes"}),
        StartsWith("sim:f,L,1C0002,A0: write: the chip is write-protected: it refused a data byte, and holds the "
                   "old bytes; check its write-protect pin and the area that it protects"));
    EXPECT_EQ(blank, content());
    EXPECT_EQ(0, undoFiles());
}

TEST_F(KestctlWidthGuard, ReadsThatDifferBecauseThePartHasAnotherWidthNameIt)
{
    for (const char* half : {"half_offset = \"high\"\n", "half_offset = \"keep\"\n"}) {
        part(half, "24C256", 32768);
        const std::string varied = variedBytes(32768);
        fill(varied);
        const RunResult refused = kestctl({"seeprom", "write", "sim:f,L,1C0002,A0", "--hex", "5A5B5C5D", "--yes"});
        EXPECT_EQ(3, refused.exit);
        EXPECT_THAT(refused.errors, HasSubstr("the part is no 24C02: two offset bytes: ")) << half;
        EXPECT_EQ(varied, content());
    }
}

TEST_F(KestctlWidthGuard, ReadsThatDifferAreSaidWithAWidthThatIsNotKnown)
{
    part("half_offset = \"keep\"\n", "24C256", 32768);
    std::string counting;
    for (int at = 0; at < 32768; ++at) {
        counting += static_cast<char>(at);
    }
    fill(counting);
    const RunResult refused = kestctl({"seeprom", "write", "sim:f,L,1C0002,A0", "--hex", "5A5B5C5D", "--yes"});
    EXPECT_EQ(3, refused.exit);
    EXPECT_THAT(refused.errors,
                HasSubstr("an undo file would hold wrong ones; the offset width is not known, the reads "
                          "are flaky: a read behind the offset byte F8 differs from the same bytes read before; "
                          "try --voted 5"));
    EXPECT_EQ(counting, content());
}

TEST_F(KestctlWidthGuard, OneFailedReadOfATrialNeitherProvesAWidthNorKeepsBytesFromBeingPutBack)
{
    for (const char* keys : {"", "kind = \"fram\"\n"}) {
        for (int nth = 5; nth <= 17; ++nth) {
            part(keys);
            clearFaults();
            shortRead(nth);
            const std::string line = complaint(3, write);
            EXPECT_THAT(line, HasSubstr("; it holds its old bytes; types that would fit: 24C02 (1C0002)")) << nth;
            EXPECT_EQ(blank, content()) << keys << nth;
            EXPECT_EQ(0, undoFiles()) << keys << nth;
        }
    }
}

TEST_F(KestctlWidthGuard, ATrialThatCanNotBeReadLeavesAFileThatFitsAPartWithOneOffsetByte)
{
    part("");
    // from the first read after the trial write on
    shortRead(9, 1000);
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
    large();
    EXPECT_THAT(says(write), HasSubstr("offset width: two offset bytes: a byte written at offset 0x0 as a trial reads "
                                       "back\n"));
    EXPECT_EQ("Z[\\]", content().substr(0, 4));
    EXPECT_EQ(1, undoFiles());
}

TEST_F(KestctlWidthGuard, AByteThatChangesNothingLeavesTheWidthOpen)
{
    const std::vector<std::string> asSmall{"seeprom", "write", "sim:f,L,1C0002,A0", "--hex", "5A5B", "--yes"};
    const std::string line = "sim:f,L,1C0002,A0: width proof: the offset width is not decidable: a byte written at "
                             "offset 0x0 behind one offset byte changed nothing: it takes two, or is write-protected; "
                             "--width-unproved writes all the same, or 'width_proved = true' in the device table";
    part("protect = \"silent\"\n");
    EXPECT_EQ(line, complaint(3, asSmall));
    EXPECT_EQ(0, undoFiles());
    const RunResult asked = kestctl(asSmall, {.input = "y\n", .terminal = true});
    EXPECT_EQ(5, asked.exit);
    EXPECT_THAT(asked.output, HasSubstr("the chip is write-protected: it holds the old bytes"));
    large();
    EXPECT_EQ(line, complaint(3, asSmall));
    EXPECT_EQ(std::string(32768, '\xFF'), content());
    part("protect = \"silent\"\n", "24C256", 32768);
    EXPECT_THAT(complaint(3, write), HasSubstr("the offset width is not decidable: a byte written at offset 0x0 behind "
                                               "two offset bytes changed nothing: it takes one, or is write-protected; "
                                               "--width-unproved writes all the same"));
}

TEST_F(KestctlWidthGuard, ARefusedTrialLeavesTheUndoFileOfTheWriteBefore)
{
    large();
    says(write);
    part("");
    std::vector<std::string> elsewhere = write;
    elsewhere.insert(elsewhere.end(), {"--offset", "0x200"});
    EXPECT_EQ(3, kestctl(elsewhere).exit);
    EXPECT_EQ(1, undoFiles());
    large();
    fill("Z[\\]" + std::string(32764, '\xFF'));
    says({"seeprom", "undo", asLarge, "--yes"});
    EXPECT_EQ(std::string(32768, '\xFF'), content());
}

TEST_F(KestctlWidthGuard, AByteOfATrialThatReadsBackWrongIsPutBackInBothWidths)
{
    large();
    // both reads of the byte after it was written
    wrongRead(9);
    wrongRead(10);
    const std::vector<std::string> other{"seeprom", "write", asLarge, "--hex", "41", "--yes", "--force"};
    EXPECT_EQ("sim:f,L,2C0256,A0: width proof: the offset width is not known: after a byte was written, its reads "
              "differ or fail; it holds its old bytes; --width-unproved writes all the same, or 'width_proved = true' "
              "in the device table",
              complaint(3, other));
    EXPECT_EQ(std::string(32768, '\xFF'), content());
    EXPECT_EQ(0, undoFiles());
    clearFaults();
    says(other);
    EXPECT_EQ('A', content()[0]);
}

TEST_F(KestctlWidthGuard, APartThatCanNotBeComparedIsNotReadBehindTwoOffsetBytesUnasked)
{
    part("kind = \"fram\"\n", "24C02", 256, "message_bytes = 8, messages = 2");
    for (const char* how : {"--yes", "--dry-run"}) {
        EXPECT_EQ("sim:f,L,2C0256,A0: width proof: the offset width is not decidable: the adapter takes no read of 16 "
                  "bytes behind an offset; --width-unproved writes all the same, or 'width_proved = true' in the "
                  "device table",
                  complaint(3, {"seeprom", "write", asLarge, "--hex", "5A", how}));
        EXPECT_EQ(blank, content());
    }
    EXPECT_THAT(complaint(4, {"seeprom", "write", "sim:f,L,2C0256,A2", "--hex", "5A", "--yes"}),
                HasSubstr("nothing answers at A2"));
}

TEST_F(KestctlWidthGuard, AFlakyPartIsNotReadBehindTwoOffsetBytesUnasked)
{
    ferroelectric();
    const std::string varied = variedBytes(256);
    fill(varied);
    // the second read behind two offset bytes
    wrongRead(4);
    EXPECT_THAT(complaint(3, {"seeprom", "write", asLarge, "--hex", "5A", "--offset", "0x100", "--yes"}),
                StartsWith("sim:f,L,2C0256,A0: width proof: the offset width is not known, the reads are flaky: two "
                           "reads behind the offset bytes"));
    EXPECT_EQ(varied, content());
}

TEST_F(KestctlWidthGuard, OldBytesThatAreReadInTwoWaysAreNotWrittenOver)
{
    large();
    const std::string varied = variedBytes(32768);
    fill(varied);
    // behind the 15 reads of the proof
    for (const int nth : {16, 17}) {
        clearFaults();
        wrongRead(nth);
        const RunResult refused = kestctl(write);
        EXPECT_EQ(3, refused.exit);
        EXPECT_EQ(
            "kestctl: sim:f,L,2C0256,A0: the reads differed at offsets 0x0\n"
            "kestctl: sim:f,L,2C0256,A0: read the old bytes: two reads of the old bytes differ in 1 byte: an undo "
            "file would hold wrong ones; try --voted 5, or a lower --speed\n",
            refused.errors);
        EXPECT_EQ(varied, content());
        EXPECT_EQ(0, undoFiles());
    }
    clearFaults();
    wrongRead(16);
    std::vector<std::string> voted = write;
    voted.insert(voted.end(), {"--voted", "3"});
    EXPECT_EQ(0, kestctl(voted).exit);
    clearFaults();
    says({"seeprom", "undo", asLarge, "--yes"});
    EXPECT_EQ(varied, content());
}

} // namespace
} // namespace kest::test
