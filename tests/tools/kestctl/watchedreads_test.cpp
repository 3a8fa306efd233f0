/// Reads for a write by a wrong type: none of them leaves a ferroelectric part with one offset byte changed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/widthguard_support.h"

namespace kest::test
{
namespace
{

using testing::HasSubstr;

/// The ferroelectric part is in the device table, as a 24C256.
class KestctlWidthReads : public KestctlWidthGuard
{
protected:
    /// @param expect  what the table expects of it: a key, or nothing
    void named(const std::string& expect, const std::string& content) const
    {
        ferroelectric();
        addRow(expect);
        fill(content);
    }
    void addRow(const std::string& expect) const
    {
        writeFile(machine() / "kest.toml", "state = \"state\"\n[machine]\nfolder = \".\"\n[[device]]\nnumber = 1\n"
                                           "name = \"vpd\"\nlocation = \"sim:f,L,2C0256,A0\"\n" +
                                               expect);
    }
    const std::string zeros = std::string(256, '\0');
    static constexpr const char* changed =
        "vpd: width proof: the part is no 24C256: a read behind two offset bytes changed it, as it does a "
        "ferroelectric "
        "part with one; it holds its old bytes; types that would fit: 24C02 (1C0002)";
    static constexpr const char* changedAndFailed =
        "vpd: width proof: the part is no 24C256: a read behind two offset bytes changed it, as it does a "
        "ferroelectric "
        "part with one; it holds its old bytes; the read ended early: the transfer ended before its last byte; types "
        "that would fit: 24C02 (1C0002)";
};

TEST_F(KestctlWidthReads, OfTheIdentityArePutBackAndRefused)
{
    // the page around the byte begins at 0x240 or 0x1240: a part with one offset byte takes 40 for its byte 2 or 12
    for (const char* offset : {"0x240", "0x1240"}) {
        for (const char* how : {"--yes", "--dry-run"}) {
            named(std::string("expect = { offset = ") + offset + ", bytes = \"54\" }\n", zeros);
            EXPECT_EQ(changed, complaint(3, {"seeprom", "write", "vpd", "--hex", "5A5B", how})) << offset;
            EXPECT_EQ(zeros, content()) << offset << how;
            EXPECT_EQ(0, undoFiles()) << offset << how;
        }
    }
}

TEST_F(KestctlWidthReads, OfAnotherIdentityArePutBackBeforeItIsRefused)
{
    const std::string other(256, '\x11');
    for (const char* more : {"--yes", "--force"}) {
        named("expect = { offset = 0x240, bytes = \"54\" }\n", other);
        EXPECT_EQ(changed, complaint(3, {"seeprom", "write", "vpd", "--hex", "5A", "--offset", "0x1111", more}));
        EXPECT_EQ(other, content()) << more;
    }
}

TEST_F(KestctlWidthReads, OfTheIdentityThatFailArePutBack)
{
    named("expect = { offset = 0x240, bytes = \"54\" }\n", zeros);
    // behind two reads of the proof and two of the old bytes
    shortRead(5);
    EXPECT_EQ(changedAndFailed, complaint(3, {"seeprom", "write", "vpd", "--hex", "5A", "--dry-run"}));
    EXPECT_EQ(zeros, content());
}

TEST_F(KestctlWidthReads, OfTheContentsArePutBackAndRefused)
{
    // what is behind the sixteen bytes is read at offset 0x10
    const std::string header("TlvInfo\0\x01\0\x0E!\x02"
                             "AB#",
                             16);
    for (const char* how : {"--yes", "--dry-run"}) {
        named("", zeros);
        EXPECT_EQ(changed, complaint(3, {"seeprom", "write", "vpd", "--input", file("header", header), how}));
        EXPECT_EQ(zeros, content()) << how;
    }
}

TEST_F(KestctlWidthReads, OfSetThatFailArePutBack)
{
    named("", blank);
    // behind two reads of the proof
    shortRead(3);
    EXPECT_EQ(changedAndFailed, complaint(3, {"seeprom", "set", "vpd", "serialNumber=S1", "--dry-run"}));
    EXPECT_EQ(blank, content());
}

TEST_F(KestctlWidthReads, WithoutAWriteAreCautionedAgainstInTheHelp)
{
    for (const char* verb : {"read", "show", "dump", "verify", "diff"}) {
        EXPECT_THAT(says({"seeprom", verb, "--help"}),
                    HasSubstr("\nThe type of the device is taken as it is. A read by one with two offset bytes\n"
                              "changes bytes of a ferroelectric part with one. 'kestctl seeprom probe' finds\n"
                              "the type and changes nothing.\n"))
            << verb;
    }
}

TEST_F(KestctlWidthReads, OfUndoArePutBackAndRefused)
{
    const char* const expect = "expect = { offset = 0x240, bytes = \"54\" }\n";
    large();
    addRow(expect);
    says({"seeprom", "write", "vpd", "--hex", "5A5B", "--yes"});
    named(expect, zeros);
    EXPECT_THAT(complaint(3, {"seeprom", "undo", "vpd", "--dry-run"}), HasSubstr("a read behind two offset bytes"));
    EXPECT_EQ(zeros, content());
    EXPECT_EQ(1, undoFiles());
}

} // namespace
} // namespace kest::test
