#include "tools/common/contentsguard.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace kest::test
{
namespace
{

using tools::byteRange;
using tools::byteVector;
using tools::contentsFinding;

/// A table with product name "AB" and serial number "S1".
const std::string table("TlvInfo\0\x01\0\x0E!\x02"
                        "AB#\x02S1\xFE\x04\x44\x60\x4B\x07",
                        25);

byteVector bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

/// A part whose reads are kept.
class ContentsGuard : public testing::Test
{
protected:
    /// Judges a write of `wanted` at `offset` to a part with this content.
    contentsFinding judge(std::string content, std::uint32_t offset, const std::string& wanted, std::size_t size = 4096)
    {
        content.resize(size, '\xFF');
        const byteVector bytes = bytesOf(content);
        tools::partContents part(static_cast<std::uint32_t>(size), [&](const byteRange& range) {
            reads.emplace_back(range.offset, range.length);
            return byteVector(bytes.begin() + range.offset, bytes.begin() + range.offset + range.length);
        });
        const byteRange range{offset, static_cast<std::uint32_t>(wanted.size())};
        part.know(range, std::span(bytes).subspan(range.offset, range.length));
        return tools::judgeContents(part, range, bytesOf(wanted));
    }
    using Reads = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
    Reads reads; ///< offset and length of each
};

TEST_F(ContentsGuard, ReadsNothingWhereNoFormatIsPossible)
{
    EXPECT_EQ("", judge("xxxx", 0, "yyyy").doubt);
    EXPECT_EQ(Reads{}, reads);
}

TEST_F(ContentsGuard, ReadsNothingWhereTheWholePartIsWritten)
{
    EXPECT_EQ("", judge("", 0, table + std::string(103, '\xFF'), 128).doubt);
    EXPECT_EQ(Reads{}, reads);
    const contentsFinding lost = judge(table, 0, std::string(128, '\xFF'), 128);
    EXPECT_EQ("tlvinfo", lost.before);
    EXPECT_EQ("", lost.after);
    EXPECT_NE("", lost.doubt);
    EXPECT_EQ(Reads{}, reads);
}

TEST_F(ContentsGuard, ReadsOnlyTheBeginningForBytesFarBehindIt)
{
    EXPECT_EQ("", judge(table, 4000, "behind").doubt);
    EXPECT_EQ((Reads{{0, 128}}), reads);
}

TEST_F(ContentsGuard, ReadsTheRestOfContentsOfWhichAPartIsWritten)
{
    std::string second = table.substr(16);
    EXPECT_EQ("", judge(table.substr(0, 16), 16, second).doubt);
    EXPECT_EQ((Reads{{0, 16}, {25, 103}}), reads);
    reads.clear();
    second.back() = '\x08';
    EXPECT_EQ(
        "the part would hold contents of the format tlvinfo (TlvInfo system EEPROM) that are damaged: crc: stored "
        "is 0x44604B08, computed is 0x44604B07",
        judge(table.substr(0, 16), 16, second).doubt);
    EXPECT_EQ((Reads{{0, 16}, {25, 103}}), reads);
}

/// 2 entries of 200 bytes pass the first 128 bytes, and then 256 of them.
TEST_F(ContentsGuard, ReadsOnWhileContentsReachTheEndOfWhatIsKnown)
{
    const std::string entry = "\xFD\xC8" + std::string(200, 'x');
    const std::string large = std::string("TlvInfo\0\x01\x01\x9A", 11) + entry + entry + "\xFE\x04" + "0000";
    EXPECT_NE("", judge(large, 4000, "x", 4096).before);
    EXPECT_EQ((Reads{{0, 128}, {128, 128}, {256, 256}}), reads);
}

TEST_F(ContentsGuard, JudgesBytesOfAMessageAlone)
{
    EXPECT_EQ("", tools::judgeWritten(bytesOf(table)).doubt);
    std::string wrong = table;
    wrong.back() = '\x08';
    EXPECT_EQ(
        "the part would hold contents of the format tlvinfo (TlvInfo system EEPROM) that are damaged: crc: stored "
        "is 0x44604B08, computed is 0x44604B07",
        tools::judgeWritten(bytesOf(wrong)).doubt);
    // the rest may be in the part
    EXPECT_EQ("", tools::judgeWritten(bytesOf(table.substr(0, 20))).doubt);
    EXPECT_EQ("", tools::judgeWritten(bytesOf("anything")).doubt);
}

} // namespace
} // namespace kest::test
